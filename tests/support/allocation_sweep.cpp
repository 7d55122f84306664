// A small server life in which allocations fail: allocation_sweep [STEP [FIRST]]
//
// For each N the N-th allocation of a life fails, then, in another, all from the N-th on. Each life
// is a process of its own, and any answer is right in it that is no crash and no hang.
#include <nx/nx.h>
#include <sys/wait.h>
#include <tests/support/Connection.h>
#include <tests/support/FailingNew.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

namespace {

constexpr long c_most = 5000;
constexpr int c_timers = 100;
constexpr int c_posts = 100;
constexpr int c_connections = 10;
constexpr unsigned c_hangSeconds = 5;

// Exit statuses of a life. An allocation that fails may be done without.
enum EEnd { NONE_FAILED = 0, SOME_FAILED = 3, REFUSED_WITH_MEMORY = 4 };

std::atomic<int> s_refused{0};

void Count(NxResult result) {
    s_refused += NxSucceeded(result) ? 0 : 1;
}

class Ticker : public INxTimerHandler {
    void OnTimeout(const CNxTimeValue& /*now*/, void* /*token*/) override {}
};

class EchoSink : public INxConnectionSink {
    void OnReceive(CNxConnection& connection, CNxMessageChain& received) override {
        Count(connection.Send(std::move(received)));
    }
};

// On a loop: within a callback nothing may be thrown.
void UseLoop(INxReactor& reactor) {
    static Ticker s_tickers[c_timers];
    try {
        for (Ticker& ticker : s_tickers) {
            Count(reactor.ScheduleTimer(&ticker, nullptr, CNxTimeValue(0, 1000), 3));
        }
        CNxT120Trace::instance()->trace_string(21, "open", false);
    } catch (const std::bad_alloc&) {
        ++s_refused;
    }
}

void UseConnections(unsigned short port) {
    std::vector<Connection> clients;
    bool isServed = port != 0;
    while (isServed && clients.size() < c_connections) {
        clients.emplace_back(port, std::chrono::milliseconds(200));
        isServed = clients.back().TrySend("x") && clients.back().Receive(1) == "x";
    }
}

void UseGroup() {
    EchoSink sink;
    CNxReactorGroup group;
    CNxEndpoint endpoint;
    CNxReactorGroupOptions options;
    options.loops = 2;
    Count(endpoint.Set("127.0.0.1:0"));
    Count(group.Start(options));
    Count(group.Listen(endpoint, sink, {}));
    Count(group.RunOnEach([&group](size_t loop) { UseLoop(*group.GetReactor(loop)); }));
    for (int i = 0; i < c_posts; ++i) {
        Count(group.PostToEach([](size_t /*loop*/) {}));
    }
    UseConnections(group.GetEndpoint().GetPort());
    static_cast<void>(group.Stop({0, 100000}));
}

void Live() {
    char name[] = "allocation_sweep";
    char* arguments[] = {name, nullptr};
    CNxThreadManager* const threads = CNxThreadManager::Instance();
    Count(threads->InitMainThread(1, arguments));
    CNxThread* network = nullptr;
    Count(threads->CreateNetworkThread(NX_THREAD_NETWORK, CNxThreadManager::CreateNetworkReactor(),
                                       network));
    UseGroup();
    Count(threads->StopAllThreads(nullptr));
    Count(threads->JoinAllThreads());
}

// In the child; ends it.
[[noreturn]] void LiveAndExit(long skip, long count) {
    alarm(c_hangSeconds);
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        std::abort();
    }
    failing_new::Fail(skip, count);
    try {
        Live();
    } catch (const std::bad_alloc&) {
        ++s_refused;
    }
    const EEnd whole = s_refused == 0 ? NONE_FAILED : REFUSED_WITH_MEMORY;
    std::exit(failing_new::GetFailed() == 0 ? whole : SOME_FAILED);
}

// Returns how many were wrong.
int Sweep(const char* mode, long count, long first, long step) {
    int wrong = 0;
    int lives = 0;
    bool hasFailed = true;
    for (long skip = first; hasFailed && skip < c_most; skip += step) {
        const pid_t child = fork();
        if (child == 0) {
            LiveAndExit(skip, count);
        }
        int status = 0;
        waitpid(child, &status, 0);
        ++lives;
        hasFailed = status != W_EXITCODE(NONE_FAILED, 0);
        if (hasFailed && status != W_EXITCODE(SOME_FAILED, 0)) {
            ++wrong;
            std::printf("WRONG: %s %ld: status %d, %s\n", mode, skip, WEXITSTATUS(status),
                        strsignal(WTERMSIG(status)));
            std::fflush(stdout);
        }
    }
    std::printf("%-14s %5d lives, %d wrong\n", mode, lives, wrong);
    std::fflush(stdout);
    return wrong;
}

}  // namespace

int main(int argc, char** argv) {
#if defined(__SANITIZE_THREAD__)
    // It loses count of the locks of forked children with threads.
    return 77;  // skipped, see CMakeLists.txt
#endif
    const long step = argc > 1 ? std::atol(argv[1]) : 1;
    const long first = argc > 2 ? std::atol(argv[2]) : 0;
    const int wrong =
        Sweep("once", 1, first, step) + Sweep("from there on", LONG_MAX / 2, first, step);
    return wrong == 0 ? 0 : 1;
}
