// Sends back what it receives: echo_peer datagram, or, over connections of its own, HOST:PORT.
#include <nx/nx.h>

#include <cstdio>
#include <list>
#include <string>

namespace {

constexpr int c_connections = 3;

// Connects again whenever its connection has ended.
class Echo : public INxConnectionSink {
public:
    explicit Echo(CNxServer& server, const char* target) : m_connector(*server.GetReactor()) {
        CNxConnectorOptions options;
        options.timeout = {1, 0};
        options.firstDelay = {0, 1000};
        options.maxDelay = {0, 50000};
        if (m_connector.Connect(target, options, *this) != NX_OK) {
            server.Fail("cannot connect");
        }
    }

private:
    void OnReceive(CNxConnection& connection, CNxMessageChain& received) override {
        connection.Send(std::move(received));
    }
    void OnHighWater(CNxConnection& connection) override { connection.PauseReading(); }
    void OnLowWater(CNxConnection& connection) override { connection.ResumeReading(); }
    void OnClosed(CNxConnection& /*connection*/, const CNxCloseReason& /*reason*/) override {
        m_connector.Reconnect();
    }

    CNxConnector m_connector;
};

}  // namespace

int main(int argc, char** argv) {
    CNxServer server(argc, argv);
    if (server.HasFailed()) {
        return server.Run();
    }
    std::string endpoint = argc > 1 ? argv[1] : "";
    std::list<Echo> echoes;
    CNxDatagram datagram(*server.GetReactor(), [&datagram](const CNxReceivedDatagram& received) {
        datagram.Send(received.from, received.bytes);
    });
    if (endpoint != "datagram") {
        while (echoes.size() < c_connections) {
            echoes.emplace_back(server, endpoint.c_str());
        }
    } else if (datagram.Open(CNxEndpoint(CNxInetAddr("127.0.0.1", 0)), {}) == NX_OK) {
        endpoint = datagram.GetEndpoint().GetText();
    } else {
        server.Fail("cannot open");
    }
    server.SetOnStop([&echoes] { echoes.clear(); });
    std::printf("listening on %s\n", endpoint.c_str());
    std::fflush(stdout);
    return server.Run();
}
