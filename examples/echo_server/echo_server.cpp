// Sends back what it receives: echo_server [ENDPOINT [CERTIFICATE KEY]]. docs/guide.md explains it.
#include <nx/nx.h>

class Echo : public INxConnectionSink {
    void OnReceive(CNxConnection& connection, CNxMessageChain& received) override {
        connection.Send(std::move(received));
    }
    void OnHighWater(CNxConnection& connection) override { connection.PauseReading(); }
    void OnLowWater(CNxConnection& connection) override { connection.ResumeReading(); }
};

int main(int argc, char** argv) {
    CNxOwnLines::Send(CNxOwnLines::NOWHERE);
    Echo echo;
    CNxServer server(argc, argv);  // Before any other thread.
    CNxListenOptions options;
    if (argc > 3) {
        CNxTlsOptions tls;
        tls.certificateFile = argv[2];
        tls.keyFile = argv[3];
        options.connection.tls = server.MakeTls(tls);
    }
    server.Listen(argc > 1 ? argv[1] : "127.0.0.1:0", echo, options);
    server.Announce();
    return server.Run();
}
