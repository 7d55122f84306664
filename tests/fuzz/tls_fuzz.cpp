// Two sides of TLS whose bytes are cut, spoilt, lost and joined by others' on their way: none
// receives what the other has not sent, and both come to an end.
#include <tests/stream/TlsPair.h>

#include <algorithm>
#include <string>
#include <utility>

#include "Fuzz.h"

namespace {

using EState = CStreamFilter::EState;

TlsPair MakePair(bool isOld) {
    const auto make = [](int version) {
        return std::pair(MakeTlsSetup(false, version, MakeTlsOptions("")),
                         MakeServerSetup(version));
    };
    static const auto s_old = make(TLS1_2_VERSION);
    static const auto s_new = make(TLS1_3_VERSION);
    return isOld ? TlsPair(s_old.first, s_old.second) : TlsPair(s_new.first, s_new.second);
}

// No two places in it look alike.
std::string MakeNumbers() {
    std::string text;
    for (int i = 0; text.size() < 30000; ++i) {
        text += std::to_string(i) + " ";
    }
    return text;
}

struct CSent {
    std::string text;
    bool isEnded = false;
};

void Look(const TlsSide& side, const CSent& sentToIt) {
    const std::string received = side.received.ToString();
    Require(sentToIt.text.compare(0, received.size(), received) == 0);
    Require(side.state != EState::ENDED ||
            (sentToIt.isEnded && received.size() == sentToIt.text.size()));
    Require((side.state == EState::FAILED) == !side.filter->GetError().empty());
}

// What is on its way.
void Spoil(unsigned what, CFuzzBytes& input, CNxMessageChain& chain) {
    std::string bytes = std::exchange(chain, {}).ToString();
    const size_t at = std::min<size_t>(input.TakeByte(), bytes.size());
    const unsigned count = input.TakeByte();
    if (what == 4 && at < bytes.size()) {
        bytes[at] = static_cast<char>(count);
    } else if (what == 5) {
        bytes.erase(at, count);
    } else if (what == 6) {
        bytes.insert(at, input.Take(count % 32));
    } else if (what == 7) {
        bytes.insert(at, bytes.substr(0, 4096));  // twice
    }
    chain.Append(bytes);
}

void Do(unsigned what, CFuzzBytes& input, TlsSide& from, TlsSide& to, CSent& sent) {
    static const std::string s_numbers = MakeNumbers();
    if (what == 1) {
        to.state =
            to.filter->Open(from.toSocket.Split(input.TakeByte() + 1), to.received, to.toSocket);
    } else if (what == 2 && from.state != EState::HANDSHAKING && !sent.isEnded) {
        const std::string text = s_numbers.substr(sent.text.size() % 1000, input.TakeByte() * 80);
        sent.text += text;
        from.Send(text);
    } else if (what == 3 && !std::exchange(sent.isEnded, true)) {
        from.End();
    } else if (what > 3) {
        Spoil(what, input, from.toSocket);
    }
}

}  // namespace

// The first byte says which version, the others what happens.
void Fuzz(std::string_view bytes) {
    CFuzzBytes input{bytes};
    TlsPair pair = MakePair(input.TakeByte() % 2 != 0);
    CSent sent[2];
    pair.client.state = pair.client.filter->Start(pair.client.toSocket);
    pair.server.state = pair.server.filter->Start(pair.server.toSocket);
    for (bool isOver = false; !isOver;) {
        isOver = input.m_left.empty();
        const unsigned what = input.TakeByte();
        if (isOver) {
            pair.Exchange();
        } else if (what / 2 % 8 == 0) {
            pair.Exchange(input.TakeByte() * 16 + 64);
        } else if (what % 2 != 0) {
            Do(what / 2 % 8, input, pair.client, pair.server, sent[1]);
        } else {
            Do(what / 2 % 8, input, pair.server, pair.client, sent[0]);
        }
        Look(pair.server, sent[1]);
        Look(pair.client, sent[0]);
    }
}
