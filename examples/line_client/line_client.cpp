// Sends the lines of standard input to a server and prints what it says: line_client HOST:PORT.
// Connects again whenever the connection is lost; what happens is said on standard error. Lines
// wait for a connection; those that were on their way when one broke may be lost.
#include <nx/nx.h>

#include <future>
#include <iostream>
#include <string>

// On its loop's thread, but for m_ended.
class Client : private INxConnectionSink {
public:
    explicit Client(INxReactor& loop) : m_connector(loop) {}

    NxResult Start(const char* target) {
        CNxConnectorOptions options;
        options.onRetry = [](const CNxCloseReason& reason, const CNxTimeValue& delay) {
            std::cerr << reason.text << "; again in " << delay.GetTotalInMsec() << " ms\n";
        };
        return m_connector.Connect(target, options, *this);
    }

    void Say(const std::string& line) {
        if (m_waiting.GetSize() > 1000000) {
            std::cerr << "lost: " << line << "\n";
            return;
        }
        m_waiting.Append({line, "\n"});
        Proceed();
    }

    // No more lines: ends when all are sent, and the server has ended its side too.
    void End() {
        m_isEnding = true;
        Proceed();
    }

    std::promise<void> m_ended;

private:
    void OnOpen(CNxConnection& connection) override {
        std::cerr << "connected to " << connection.GetPeerEndpoint().GetText() << "\n";
        Proceed();
    }

    void OnReceive(CNxConnection& /*connection*/, CNxMessageChain& received) override {
        std::cout << received.Split(received.GetSize()).ToString() << std::flush;
    }

    void OnClosed(CNxConnection& /*connection*/, const CNxCloseReason& reason) override {
        std::cerr << reason.text << "\n";
        m_connector.Reconnect();
        Proceed();
    }

    void Proceed() {
        CNxConnection* const connection = m_connector.GetConnection();
        if (connection != nullptr && connection->GetState() == CNxConnection::EState::OPEN) {
            if (connection->Send(std::move(m_waiting)) == NX_OK && m_isEnding) {
                connection->EndSending();
            }
        } else if (connection == nullptr && m_isEnding && m_waiting.IsEmpty()) {
            m_connector.Cancel();
            m_ended.set_value();
        }
    }

    CNxConnector m_connector;
    CNxMessageChain m_waiting;
    bool m_isEnding = false;
};

int main(int argc, char** argv) {
    CNxOwnLines::Send(CNxOwnLines::NOWHERE);
    CNxReactorGroup loops;
    if (CNxThreadManager::Instance()->InitMainThread(argc, argv) != NX_OK ||
        loops.Start({}) != NX_OK) {
        return 1;
    }
    INxReactor& loop = *loops.GetReactor(0);
    Client client(loop);
    if (NxSendCall(loop, [&] { return client.Start(argc > 1 ? argv[1] : ""); }) != NX_OK) {
        std::cerr << "usage: line_client HOST:PORT\n";
        return 2;
    }
    for (std::string line; std::getline(std::cin, line);) {
        NxSendCall(loop, [&] { client.Say(line); });
    }
    NxSendCall(loop, [&] { client.End(); });
    client.m_ended.get_future().wait();
    return loops.Stop({}) == NX_OK ? 0 : 1;
}
