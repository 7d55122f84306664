// Sends back what it receives: echo_server [port]. docs/guide.md explains it step by step.
#include <common/Program.h>
#include <common/SignalThread.h>
#include <nx/nx.h>
#include <sys/socket.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unordered_map>

class EchoHandler : public INxEventHandler {
public:
    using Clients = std::unordered_map<int, EchoHandler>;

    EchoHandler(INxReactor& reactor, Clients& owner, int fd) : m_reactor(reactor), m_owner(owner) {
        m_socket.SetHandle(fd);
    }
    int GetHandle() const override { return m_socket.GetHandle(); }
    int OnInput(int fd) override {
        for (int turn = 0; turn < 16 && m_unsent.empty(); ++turn) {
            const ssize_t got = recv(fd, m_reactor.GetBufferPtr(), m_reactor.GetBufferSize(), 0);
            if (got == -1 && errno == EAGAIN) {
                return 0;
            }
            if (got == -1 && IsPassing()) {
                break;
            }
            if (got <= 0 || !Send(m_reactor.GetBufferPtr(), static_cast<size_t>(got))) {
                return -1;
            }
        }
        // The socket is full, or it is the others' turn: go on when it can be written to.
        return WaitFor(NX_MASK_WRITE) ? 0 : -1;
    }
    int OnOutput(int fd) override {
        const bool goesOn = WaitFor(NX_MASK_READ) && Send(m_unsent.data(), m_unsent.size());
        return goesOn ? OnInput(fd) : -1;
    }
    int OnClose(int fd, long /*mask*/) override {
        m_owner.erase(fd);  // Deletes this.
        return 0;
    }

private:
    bool WaitFor(long mask) {
        const NxResult result = m_reactor.RegisterHandler(this, mask);
        return result == NX_OK || result == NX_ERROR_FOUND;  // FOUND: it replaced another.
    }

    // Interrupted, or the system lacks buffers: no reason to hang up.
    static bool IsPassing() { return errno == EINTR || errno == ENOBUFS || errno == ENOMEM; }

    // Keeps what the socket does not take now. False when the client is gone.
    bool Send(const char* data, size_t size) {
        const ssize_t sent = send(GetHandle(), data, size, MSG_NOSIGNAL);
        if (sent == -1 && errno != EAGAIN && !IsPassing()) {
            return false;
        }
        m_unsent = std::string(data + (sent == -1 ? 0 : sent), data + size);
        return true;
    }

    INxReactor& m_reactor;
    Clients& m_owner;
    CNxSocketBase m_socket;
    std::string m_unsent;
};

class AcceptHandler : public INxEventHandler, private INxTimerHandler {
public:
    explicit AcceptHandler(INxReactor& reactor) : m_reactor(reactor) {}
    bool Open(CNxInetAddr& address) {
        return m_socket.Open(1, address) == 0 && listen(GetHandle(), SOMAXCONN) == 0 &&
               m_socket.GetLocalAddr(address) == 0 &&
               m_reactor.RegisterHandler(this, NX_MASK_ACCEPT) == NX_OK;
    }
    int GetHandle() const override { return m_socket.GetHandle(); }
    int OnInput(int listener) override {
        int fd = -1;
        while ((fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) != -1) {
            EchoHandler& client = m_clients.try_emplace(fd, m_reactor, m_clients, fd).first->second;
            if (m_reactor.RegisterHandler(&client, NX_MASK_READ) != NX_OK) {
                m_clients.erase(fd);
            }
        }
        if (errno != EAGAIN) {  // Out of descriptors, say: no new edge tells when that is over.
            examples::Require(m_reactor.ScheduleTimer(this, nullptr, CNxTimeValue(0, 50000), 1),
                              "set a timer");
        }
        return 0;
    }

private:
    void OnTimeout(const CNxTimeValue& /*now*/, void* /*token*/) override { OnInput(GetHandle()); }

    INxReactor& m_reactor;
    CNxSocketTcp m_socket;
    EchoHandler::Clients m_clients;
};

int main(int argc, char** argv) {
    examples::SignalThread signals({SIGINT, SIGTERM});  // First: before any other thread.
    CNxThreadManager* const threads = CNxThreadManager::Instance();
    CNxThread* network = nullptr;
    if (threads->InitMainThread(argc, argv) != NX_OK ||
        threads->CreateNetworkThread(NX_THREAD_NETWORK, CNxThreadManager::CreateNetworkReactor(),
                                     network) != NX_OK) {
        return examples::Fail("cannot start its threads");
    }
    INxReactor& reactor = *network->GetReactor();
    const unsigned long port = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 0;
    CNxInetAddr address("127.0.0.1", static_cast<unsigned short>(port));
    AcceptHandler acceptor(reactor);
    bool opened = false;
    NxSendCall(reactor, [&] { opened = port <= 65535 && acceptor.Open(address); });
    opened = opened && signals.Open(reactor, [](int) { CNxSignalStop::Instance()->Launch(0); });
    if (opened) {
        std::printf("listening on %s:%d\n", address.GetHostAddr(), address.GetPort());
        std::fflush(stdout);
        threads->GetThread(NX_THREAD_MAIN)->OnThreadRun();  // Until a signal stops it.
    } else {
        std::fprintf(stderr, "echo_server: cannot listen on port %lu\n", port);
    }
    threads->StopAllThreads(nullptr);
    threads->JoinAllThreads();  // From here on nobody calls the handlers any more.
    return opened ? 0 : 1;
}
