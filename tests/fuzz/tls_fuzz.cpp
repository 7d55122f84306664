// Two sides of TLS whose bytes are cut, spoilt, lost and joined by others' on their way: none
// receives what the other has not sent, and both come to an end.
#include <tests/stream/TlsPair.h>

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "Fuzz.h"

namespace {

using EState = CStreamFilter::EState;
using Setup = std::shared_ptr<CTlsSetup>;

TlsPair MakePair(bool isOld) {
    const int version = isOld ? TLS1_2_VERSION : TLS1_3_VERSION;
    static std::array<std::pair<Setup, Setup>, 2> s_setups;
    std::pair<Setup, Setup>& setups = s_setups[isOld ? 1 : 0];
    if (setups.first == nullptr) {
        setups = {MakeTlsSetup(false, version, MakeTlsOptions("")),
                  MakeTlsSetup(true, version, MakeTlsOptions("server"))};
    }
    return {setups.first, setups.second};
}

// No two places in it look alike.
const std::string& Numbers() {
    static const std::string s_numbers = [] {
        std::string text;
        for (int i = 0; text.size() < 30000; ++i) {
            text += std::to_string(i) + " ";
        }
        return text;
    }();
    return s_numbers;
}

class CWorld {
public:
    explicit CWorld(std::string_view input)
        : m_input(input), m_pair(MakePair(TakeByte() % 2 != 0)) {}

    void Run() {
        m_pair.client.state = m_pair.client.filter->Start(m_pair.client.toSocket);
        m_pair.server.state = m_pair.server.filter->Start(m_pair.server.toSocket);
        while (!m_input.empty()) {
            const unsigned what = TakeByte();
            const bool isClient = what % 2 != 0;
            Do(what / 2 % 8, isClient ? m_pair.client : m_pair.server,
               isClient ? m_pair.server : m_pair.client, m_sent[isClient ? 1 : 0]);
            Look(m_pair.server, m_sent[1]);
            Look(m_pair.client, m_sent[0]);
        }
        m_pair.Exchange();
        Look(m_pair.server, m_sent[1]);
        Look(m_pair.client, m_sent[0]);
    }

private:
    struct CSent {
        std::string text;
        bool isEnded = false;
    };

    unsigned TakeByte() {
        const unsigned byte = m_input.empty() ? 0 : static_cast<unsigned char>(m_input.front());
        m_input.remove_prefix(m_input.empty() ? 0 : 1);
        return byte;
    }

    void Do(unsigned what, TlsSide& from, TlsSide& to, CSent& sent) {
        switch (what) {
            case 0:
                m_pair.Exchange(TakeByte() * 16 + 64);
                break;
            case 1:
                Carry(from.toSocket.Split(TakeByte() + 1), to);
                break;
            case 2:
                Seal(from, sent, TakeByte() * 80);
                break;
            case 3:
                End(from, sent);
                break;
            default:
                Spoil(what, from);
        }
    }

    static void Carry(CNxMessageChain&& bytes, TlsSide& to) {
        to.state = to.filter->Open(std::move(bytes), to.received, to.toSocket);
    }

    static void Seal(TlsSide& side, CSent& sent, size_t size) {
        if (side.state != EState::HANDSHAKING && !sent.isEnded) {
            const std::string text = Numbers().substr(sent.text.size() % 1000, size);
            sent.text += text;
            side.Send(text);
        }
    }

    static void End(TlsSide& side, CSent& sent) {
        if (!std::exchange(sent.isEnded, true)) {
            side.End();
        }
    }

    // What is on its way.
    void Spoil(unsigned what, TlsSide& from) {
        std::string bytes = std::exchange(from.toSocket, {}).ToString();
        const size_t at = std::min<size_t>(TakeByte(), bytes.size());
        if (what == 4 && at < bytes.size()) {
            bytes[at] = static_cast<char>(TakeByte());
        } else if (what == 5) {
            bytes.erase(at, TakeByte());
        } else if (what == 6) {
            const size_t count = std::min<size_t>(TakeByte() % 32, m_input.size());
            bytes.insert(at, m_input.substr(0, count));
            m_input.remove_prefix(count);
        } else if (what == 7) {
            bytes.insert(at, bytes.substr(0, 4096));  // twice
        }
        from.toSocket.Append(bytes);
    }

    static void Look(const TlsSide& side, const CSent& sentToIt) {
        const std::string received = side.received.ToString();
        Require(sentToIt.text.compare(0, received.size(), received) == 0);
        Require(side.state != EState::ENDED ||
                (sentToIt.isEnded && received.size() == sentToIt.text.size()));
        Require((side.state == EState::FAILED) == !side.filter->GetError().empty());
    }

    std::string_view m_input;
    TlsPair m_pair;
    std::array<CSent, 2> m_sent;
};

}  // namespace

// The first byte says which version, the others what happens.
void Fuzz(std::string_view input) {
    CWorld(input).Run();
}
