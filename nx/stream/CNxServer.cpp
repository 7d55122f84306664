#include <fcntl.h>
#include <nx/event/NxCall.h>
#include <nx/foundation/CNxProcessWide.h>
#include <nx/foundation/INxObserver.h>
#include <nx/foundation/standard_streams.h>
#include <nx/process/CDescriptor.h>
#include <nx/process/daemon.h>
#include <nx/reactor/CNxEventHandlerRepository.h>
#include <nx/reactor/INxReactor.h>
#include <nx/stream/CNxConnection.h>
#include <nx/stream/CNxServer.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>
#include <nx/trace/CNxT120Trace.h>
#include <nx/trace/CNxTraceManager.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <system_error>
#include <utility>

namespace {

constexpr rlim_t c_mostDescriptors = 1UL << 20;
constexpr long c_turnNsec = 10000000;

sigset_t GetSignals(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signo : signals) {
        sigaddset(&set, signo);
    }
    return set;
}

void Say(const std::string& what) {
    PrintToStderr("%s: %s\n", program_invocation_short_name, what.c_str());
}

// Why, with errno where a system call has failed.
std::string Explain(const std::string& what, NxResult result) {
    const bool isErrno = result == NX_ERROR_FAILURE && errno != 0;
    return what + ": " + (isErrno ? std::system_category().message(errno) : NxResultName(result));
}

void FillStandardStreams() {
    int fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = dup(fd);
    }
    if (fd >= 0) {
        close(fd);
    }
}

bool AllowDescriptors(unsigned asked) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return asked == 0;
    }
    const rlim_t wanted = asked != 0 ? asked : std::min(limit.rlim_max, c_mostDescriptors);
    if (limit.rlim_cur >= wanted) {
        return true;
    }
    int actual = 0;
    const NxResult result = CNxEventHandlerRepository::SetRlimit(
        RLIMIT_NOFILE, static_cast<int>(std::min<rlim_t>(wanted, INT_MAX)), actual);
    return asked == 0 || (result == NX_OK && static_cast<rlim_t>(actual) >= wanted);
}

// Calls when its descriptor can be read.
class CInputHandler : public INxEventHandler {
public:
    CInputHandler(int fd, std::function<void()> onInput)
        : m_descriptor(fd), m_onInput(std::move(onInput)) {}
    int GetHandle() const override { return m_descriptor.Get(); }
    int OnInput(int /*fd*/) override {
        m_onInput();
        return 0;
    }

private:
    CDescriptor m_descriptor;
    const std::function<void()> m_onInput;
};

}  // namespace

void CNxServer::CDestory::operator()(CNxThread* thread) const {
    thread->Destory(0);
}

// Takes the signals on the main thread's loop. While the server stops, and when a signal could not
// be read, it looks again every now and then: by a timer of its own, because those of reactors go
// by a clock that may be set.
class CNxServer::CSignals {
public:
    CSignals(CNxServer& server, INxReactor& reactor)
        : m_server(server), m_reactor(reactor), m_set(GetSignals({SIGTERM, SIGINT, SIGHUP})) {}
    ~CSignals() {
        for (CInputHandler* handler : {&m_signals, &m_timer}) {
            static_cast<void>(m_reactor.RemoveHandler(handler, NX_MASK_READ));
        }
    }

    [[nodiscard]] NxResult Open() {
        NxResult result = NX_OK;
        for (CInputHandler* handler : {&m_signals, &m_timer}) {
            if (result == NX_OK) {
                result = handler->GetHandle() >= 0
                             ? m_reactor.RegisterHandler(handler, NX_MASK_READ)
                             : NX_ERROR_FAILURE;
            }
        }
        return result;
    }

    void Turn() {
        const bool areAllTaken = TakeAll();
        if (m_server.m_isStopping && m_server.IsStopOver()) {
            static_cast<void>(m_server.m_main->Stop(nullptr));
        } else if (m_server.m_isStopping || !areAllTaken) {
            const itimerspec next{{0, 0}, {0, c_turnNsec}};
            // Cannot fail with these arguments.
            timerfd_settime(m_timer.GetHandle(), 0, &next, nullptr);
        }
    }

private:
    // False when there may be more.
    bool TakeAll() {
        signalfd_siginfo info{};
        ssize_t got = 0;
        while ((got = read(m_signals.GetHandle(), &info, sizeof(info))) == sizeof(info)) {
            const int signo = static_cast<int>(info.ssi_signo);
            if (m_server.m_signal == 0 && signo != SIGHUP) {
                m_server.m_signal = signo;
            }
            m_server.OnSignal(signo);
        }
        return got == -1 && errno == EAGAIN;
    }

    CNxServer& m_server;
    INxReactor& m_reactor;
    const sigset_t m_set;
    CInputHandler m_signals{signalfd(-1, &m_set, SFD_CLOEXEC | SFD_NONBLOCK), [this] { Turn(); }};
    // Set anew each time, so that it need not be read.
    CInputHandler m_timer{timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK),
                          [this] { Turn(); }};
};

// Without one of its loops the server would live on deaf.
class CNxServer::CEndObserver : public INxObserver {
public:
    explicit CEndObserver(CNxThread& mainThread) : m_main(mainThread) {
        CNxThreadManager::SetThreadEndObserver(this);
    }
    ~CEndObserver() override { CNxThreadManager::SetThreadEndObserver(nullptr); }

    void OnObserve(const char* /*topic*/, void* /*thread*/) override {
        m_hasLoopEnded = true;
        static_cast<void>(m_main.Stop(nullptr));
    }
    bool HasLoopEnded() const { return m_hasLoopEnded; }

private:
    CNxThread& m_main;
    std::atomic<bool> m_hasLoopEnded{false};
};

CNxServer::CNxServer(int argc, char** argv, const CNxServerOptions& options)
    : m_stopLimit(options.stopLimit) {
    m_error = Start(argc, argv, options);
}

CNxServer::~CNxServer() = default;

// Returns what is wrong, or "".
std::string CNxServer::Start(int argc, char** argv, const CNxServerOptions& options) {
    const sigset_t blocked = GetSignals({SIGTERM, SIGINT, SIGHUP});
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    FillStandardStreams();
    if (!AllowDescriptors(options.descriptors)) {
        return "may not have " + std::to_string(options.descriptors) + " open descriptors";
    }
    errno = 0;
    NxResult result = StartMainThread(argc, argv);
    if (result != NX_OK) {
        return Explain("cannot start its main thread", result);
    }
    m_signals = std::make_unique<CSignals>(*this, *m_main->GetReactor());
    result = m_signals->Open();
    if (result != NX_OK) {
        return Explain("cannot take signals", result);
    }
    m_endObserver = std::make_unique<CEndObserver>(*m_main);
    result = m_group.Start(options.loops);
    return result != NX_OK ? Explain("cannot start its loops", result) : "";
}

// The task thread that there is at first gives way to one that can wait for descriptors.
NxResult CNxServer::StartMainThread(int argc, char** argv) {
    CNxThreadManager* const threads = CNxThreadManager::Instance();
    const NxResult started = threads->InitMainThread(argc, argv);
    if (started != NX_OK) {
        return started;
    }
    threads->GetThread(NX_THREAD_MAIN)->Destory(0);
    CNxThread* mainThread = nullptr;
    const NxResult created = threads->CreateNetworkThread(
        NX_THREAD_MAIN, CNxThreadManager::CreateNetworkReactor(), mainThread);
    m_main.reset(mainThread);
    return created;
}

NxResult CNxServer::Listen(const std::string& endpoint, CNxSinkSource sinks,
                           const CNxListenOptions& options) {
    return OpenWith(endpoint, [&](const CNxEndpoint& at) {
        return m_group.Listen(at, std::move(sinks), options);
    });
}

NxResult CNxServer::Open(CNxDatagram& socket, const std::string& endpoint,
                         const CNxDatagramOptions& options) {
    return OpenWith(endpoint, [&](const CNxEndpoint& at) { return socket.Open(at, options); });
}

template <class OpenAt>
NxResult CNxServer::OpenWith(const std::string& endpoint, const OpenAt& openAt) {
    if (HasFailed()) {
        // Such as the certificate: nobody is to be served without it.
        return NX_ERROR_NOT_INITIALIZED;
    }
    CNxEndpoint parsed;
    if (parsed.Set(endpoint.c_str()) != NX_OK) {
        Fail("no endpoint: " + endpoint);
        return NX_ERROR_INVALID_ARG;
    }
    errno = 0;
    const NxResult result = openAt(parsed);
    if (result != NX_OK) {
        Fail(Explain("cannot listen on " + endpoint, result));
    }
    return result;
}

CNxAutoPtr<CNxTlsContext> CNxServer::MakeTls(const CNxTlsOptions& options) {
    CNxAutoPtr<CNxTlsContext> tls;
    std::string error;
    if (CNxTlsContext::CreateServer(tls, options, error) != NX_OK) {
        Fail(error);
    }
    return tls;
}

void CNxServer::Announce() const {
    for (size_t i = 0; i < m_group.GetListeners(); ++i) {
        const CNxEndpoint endpoint = m_group.GetEndpoint(i);
        if (endpoint.GetFamily() != AF_UNSPEC) {
            std::printf("listening on %s\n", endpoint.GetText().c_str());
        }
    }
    std::fflush(stdout);
}

void CNxServer::Fail(const std::string& what) {
    if (m_error.empty()) {
        m_error = what;
    }
}

int CNxServer::Run() {
    if (!HasFailed()) {
        cnx_daemon_ready();
        const unsigned forks = CNxProcessWide::CountForks();
        m_main->OnThreadRun();
        if (forks != CNxProcessWide::CountForks()) {
            Say("a forked child has come back from a callback");
            _exit(1);
        }
    }
    return End();
}

void CNxServer::OnSignal(int signo) {
    if (m_isStopping) {
        m_isToEndNow = m_isToEndNow || signo != SIGHUP;
    } else if (signo == SIGHUP) {
        Reload();
    } else {
        BeginStop();
    }
}

void CNxServer::BeginStop() {
    assert(!m_isStopping);
    m_isStopping = true;
    m_stopStart = CNxTimeValue::GetMonotonicTime();
    if (m_onStop) {
        m_onStop();
    }
    CNxConnection::StopAll(*GetReactor());
    m_group.BeginStop();
}

INxReactor* CNxServer::GetReactor() const {
    return m_main != nullptr ? m_main->GetReactor() : nullptr;
}

bool CNxServer::IsStopOver() const {
    const size_t connections = m_group.GetConnections() + CNxConnection::GetCount(*GetReactor());
    return m_isToEndNow || connections == 0 ||
           CNxTimeValue::GetMonotonicTime() - m_stopStart >= m_stopLimit;
}

void CNxServer::Reload() {
    refresh_trace_config();
    std::string error;
    if (m_group.ReloadTls(error) != NX_OK) {
        Say("goes on with the certificates that it has: " + error);
    }
    if (m_onReload) {
        m_onReload();
    }
}

NxResult CNxServer::Stop() {
    return m_main == nullptr ? NX_ERROR_NOT_INITIALIZED
                             : NxPostCall(*m_main->GetEventQueue(), [this] {
                                   OnSignal(SIGTERM);
                                   m_signals->Turn();
                               });
}

// Nobody reads signals any more: one that comes ends the process.
int CNxServer::End() {
    if (m_endObserver != nullptr && m_endObserver->HasLoopEnded()) {
        Fail("one of its loops has ended by itself");
    }
    struct sigaction action {};
    action.sa_handler = HasFailed() ? [](int) { _exit(1); } : [](int) { _exit(0); };
    const sigset_t unblocked = GetSignals({SIGTERM, SIGINT});
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    pthread_sigmask(SIG_UNBLOCK, &unblocked, nullptr);
    if (HasFailed()) {
        Say(m_error);
        INxTraceManager::Instance()->TraceString(NX_TRACE_ERROR, m_error.c_str());
    }
    if (m_group.Stop(CNxTimeValue::s_tvZero()) != NX_OK) {
        Say("one of its loops is blocked in a callback");
        _exit(1);
    }
    if (m_main != nullptr) {
        CNxThreadManager::Instance()->StopAllThreads(nullptr);
        CNxThreadManager::Instance()->JoinAllThreads();
    }
    return HasFailed() ? 1 : 0;
}
