// Waking a thread that sleeps: a post that is answered, and tokens that threads hand on to each
// other, all of them on one processor. The time of a round trip, and of a hop.
#include "loops.h"

namespace bench {

namespace {

// Each of `loops` threads starts with one of `tokens`, and posts what comes to the next.
template <class Loop>
class Ring {
public:
    Ring(long loops, long tokens) : m_done(tokens) {
        for (long i = 0; i < loops; ++i) {
            m_loops.push_back(new Loop(0));
        }
        m_tokens.resize(static_cast<size_t>(tokens));
    }

    // Nanoseconds a hop.
    double Run(long hops) {
        const long each = hops / static_cast<long>(m_tokens.size()) + 1;
        const double start = NowInNs();
        for (size_t i = 0; i < m_tokens.size(); ++i) {
            m_tokens[i] = {this, i, each};
            m_loops[i]->Post({Hop, &m_tokens[i]});
        }
        m_done.Wait();
        return (NowInNs() - start) / static_cast<double>(each) /
               static_cast<double>(m_tokens.size());
    }

private:
    struct Token {
        Ring* ring;
        size_t at;
        long hopsLeft;
    };

    static void Hop(void* argument) {
        Token& token = *static_cast<Token*>(argument);
        Ring& ring = *token.ring;
        if (--token.hopsLeft == 0) {
            ring.m_done.CountDown();
            return;
        }
        token.at = (token.at + 1) % ring.m_loops.size();
        ring.m_loops[token.at]->Post({Hop, &token});
    }

    std::vector<Loop*> m_loops;
    std::vector<Token> m_tokens;
    Latch m_done;
};

template <class Loop>
double HandOn(long loops, long tokens) {
    PinTo(0);
    return Ring<Loop>(loops, tokens).Run(Times(60000));
}

// Every kind of loop with so many threads; none for a caller that is answered.
void AddLoops(std::vector<Case>& cases, const char* name, long x, long loops, long tokens) {
    ForEachLoop([&](auto kind, const char* row) {
        using Loop = typename decltype(kind)::Type;
        cases.push_back({"wake", name, row, x, [=] {
                             return loops == 0 ? PostAndWait<Loop>() : HandOn<Loop>(loops, tokens);
                         }});
    });
}

}  // namespace

void AddWake(std::vector<Case>& cases) {
    AddLoops(cases, "post and answer", 0, 0, 0);
    AddLoops(cases, "two loops, one token", 0, 2, 1);
    for (const long loops : {1, 4, 16, 64}) {
        AddLoops(cases, "loops with a token each: {}", loops, loops, loops);
    }
}

}  // namespace bench
