// A server that does what its clients say: CNxServer_test.cpp. server_program MODE
#include <nx/process/daemon.h>
#include <nx/reactor/CNxReactorEpoll.h>
#include <nx/stream/CNxConnection.h>
#include <nx/stream/CNxServer.h>
#include <nx/thread/CNxThreadManager.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

namespace {

// "b": to be busy when the server stops. "s": stops the server. "p": does so twice, and blocks its
// loop.
class Sink : public INxConnectionSink {
public:
    explicit Sink(CNxServer& server) : m_server(server) {}
    void OnReceive(CNxConnection& connection, CNxMessageChain& received) override {
        const char request = received.GetFront().front();
        received.Clear();
        m_isBusy = request == 'b';
        if (request == 's') {
            m_server.Stop();
        }
        connection.Send("+");
        while (request == 'p') {
            kill(getpid(), SIGTERM);
            kill(getpid(), SIGINT);
            pause();
        }
    }
    void OnStop(CNxConnection& connection) override {
        m_hasHeard = true;
        connection.Send("stop");
        if (!m_isBusy) {
            connection.CloseWhenSent();
        }
    }
    bool HasHeard() const { return m_hasHeard; }

private:
    CNxServer& m_server;
    bool m_hasHeard = false;
    bool m_isBusy = false;
};

class ReactorWhoseWaitingFails : public CNxReactorEpoll {
public:
    NxResult RunEventLoop() override { return NX_ERROR_FAILURE; }
};

void ForkAndComeBack() {
    int status = 0;
    if (fork() != 0 && wait(&status) > 0) {
        std::printf("its child ended with %d\n", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
        std::fflush(stdout);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    const bool isDaemon = mode == "daemon" || mode == "no daemon";
    if (isDaemon && cnx_daemonise_until_ready() != NX_OK) {
        return 4;
    }
    CNxServerOptions options;
    options.loops.loops = 2;
    options.stopLimit = mode == "limit" ? CNxTimeValue(0, 100000) : CNxTimeValue(600);
    CNxServer server(argc, argv, options);
    server.Listen("127.0.0.1:0", [&server] { return std::make_unique<Sink>(server); });
    server.Announce();
    CNxDatagram echo(*server.GetReactor(), [&echo](const CNxReceivedDatagram& received) {
        echo.Send(received.from, received.bytes);
    });
    server.Open(echo, mode == "no daemon" ? "127.0.0.1:no port" : "127.0.0.1:0");
    std::printf("%s\n", echo.GetEndpoint().GetText().c_str());
    std::fflush(stdout);
    if (mode == "loop ends") {
        CNxThread* thread = nullptr;
        static_cast<void>(CNxThreadManager::Instance()->CreateReactorThread(
            2, new ReactorWhoseWaitingFails, thread));
    }
    server.SetOnReload(ForkAndComeBack);
    int ends[2] = {-1, -1};
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
    // On the main thread's loop, and told of the stop like the others.
    Sink own(server);
    CNxConnectionOptions ownOptions;
    ownOptions.lingerTimeout = CNxTimeValue::s_tvZero();
    CNxConnectedSocket socket;
    socket.socket.SetHandle(ends[0]);
    CNxAutoPtr<CNxConnection> connection;
    static_cast<void>(CNxConnection::Create(connection, *server.GetReactor(), std::move(socket),
                                            own,
                                            std::make_shared<CNxConnectionOptions>(ownOptions)));
    const int status = server.Run();
    return status == 0 && !own.HasHeard() ? 3 : status;
}
