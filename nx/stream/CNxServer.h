// A server process in one object: its start-up, its loops, its signals and its end.
//
//     int main(int argc, char** argv) {
//         Echo echo;
//         CNxServer server(argc, argv);
//         server.Listen("127.0.0.1:7007", echo);
//         return server.Run();
//     }
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include <nx/foundation/CNxTimeValue.h>
#include <nx/foundation/NxResult.h>
#include <nx/stream/CNxDatagram.h>
#include <nx/stream/CNxReactorGroup.h>

struct CNxServerOptions {
    CNxReactorGroupOptions loops;

    // The limit of open descriptors is raised to so many; 0: to what the process may have, at most
    // 1048576. One that is higher stays.
    unsigned descriptors = 0;

    // How long connections may go on with what is under way when the server is told to stop.
    CNxTimeValue stopLimit{10, 0};
};

// TO BE MADE BEFORE THERE IS ANY OTHER THREAD, one per process, on the main thread, to which it
// belongs; Stop is for any thread. What it does to the process:
//
// - SIGTERM, SIGINT and SIGHUP are blocked, for the threads started later, too, and programs that
//   they execute; they are taken on the main thread's loop, in Run. None that comes from here on is
//   lost; one that comes again before it was taken counts once. raise(3) on another thread is for
//   that thread, and is never taken: use Stop, or kill(2). SIGPIPE is ignored.
// - A standard stream that the process was started without leads nowhere from here on: else the
//   next connection would be it.
// - The caller becomes the main thread (CNxThreadManager::InitMainThread), with a reactor as its
//   loop (NX_THREAD_MAIN). The group's loops are threads of their own and run from here on.
// - The thread manager's end observer (SetThreadEndObserver) is the server.
//
// A daemon calls cnx_daemonise_until_ready (nx/process/daemon.h) before: whoever starts it then
// reads what fails, and gets Run's status, 0 as soon as it serves.
//
// What fails, here or in Listen, is kept: Run says it and returns 1.
class CNxServer {
public:
    CNxServer(int argc, char** argv, const CNxServerOptions& options = {});
    // Without Run before it: stops the loops without waiting for what is under way. The main thread
    // is none any more.
    ~CNxServer();
    CNxServer(const CNxServer&) = delete;
    CNxServer& operator=(const CNxServer&) = delete;

    // CNxReactorGroup::Listen on an endpoint in text (CNxEndpoint::Set). The result need not be
    // looked at: Run does. NX_ERROR_INVALID_ARG for what is no endpoint, NX_ERROR_NOT_INITIALIZED
    // when something has failed before, else that of the group.
    NxResult Listen(const std::string& endpoint, CNxSinkSource sinks,
                    const CNxListenOptions& options = {});

    // CNxDatagram::Open on an endpoint in text, for a socket on the main thread's loop:
    //
    //     CNxDatagram echo(*server.GetReactor(), [&](const CNxReceivedDatagram& received) {
    //         echo.Send(received.from, received.bytes);
    //     });
    //     server.Open(echo, "*:7007");
    //
    // The result need not be looked at: Run does. As Listen, else that of CNxDatagram::Open.
    NxResult Open(CNxDatagram& socket, const std::string& endpoint,
                  const CNxDatagramOptions& options = {});

    // A TLS context of a server, for the options of connections; null when it cannot be made, and
    // then Run says why.
    [[nodiscard]] CNxAutoPtr<CNxTlsContext> MakeTls(const CNxTlsOptions& options);

    // Prints "listening on ENDPOINT" on standard output for each Listen (not Open) that has
    // succeeded, with the port that the system has chosen for 0.
    void Announce() const;

    // The loops. Empty when the start has failed.
    CNxReactorGroup& GetGroup() { return m_group; }

    // The loop of the main thread, which runs in Run and serves none of the listeners: for the
    // process's own timers, connectors and datagrams, which can be made before Run without a call
    // on another thread. Its connections are told of a stop like all others. Null when the start
    // has failed.
    INxReactor* GetReactor() const;

    // Something that the program needs has failed: Run says it and returns 1 without having served.
    // The first one counts.
    void Fail(const std::string& what);
    bool HasFailed() const { return !m_error.empty(); }

    // Called on the main thread, in Run: at each SIGHUP, after the trace switches
    // (refresh_trace_config) and the certificates of all listeners were read anew (what fails of
    // the latter is said on standard error); and once when the server is about to stop, before the
    // connections are told. To be set before Run.
    void SetOnReload(std::function<void()> onReload) { m_onReload = std::move(onReload); }
    void SetOnStop(std::function<void()> onStop) { m_onStop = std::move(onStop); }

    // Serves until SIGTERM, SIGINT or Stop; calls cnx_daemon_ready when it begins. Then stops the
    // group gracefully, within the stop limit; the main thread's loop goes on meanwhile. A second
    // SIGTERM or SIGINT ends that at once. At last all threads of the thread manager are stopped
    // and joined, the user's too; a signal that comes then ends the process by its default action.
    // To be called once.
    // 0 after a stop. 1 when something has failed, with a line "PROGRAM: WHAT" on standard error,
    // and a record of level 1 (Error) for a daemon, which has none: a start, a Listen, or one of
    // the loops, which has ended by itself.
    // A LOOP THAT IS BLOCKED IN A CALLBACK and stays so (CNxReactorGroup::c_blockedLimit) cannot be
    // ended: Run says so, and ends the process with status 1 by _exit(2). A child process that a
    // callback here has forked, and that comes back from it, ends in the same way: it has none of
    // the loops. It should call execve(2) or _exit(2) itself.
    [[nodiscard]] int Run();

    // The first SIGTERM or SIGINT that came; 0 for none. After Run.
    int GetSignal() const { return m_signal; }

    // As a SIGTERM. Any thread. NX_OK, and nothing happens after a Run that has failed;
    // NX_ERROR_NOT_INITIALIZED when the server ends, or has not started; NX_ERROR_FAILURE without
    // memory.
    NxResult Stop();

private:
    class CSignals;
    class CEndObserver;
    struct CDestory {
        void operator()(CNxThread* thread) const;
    };

    [[nodiscard]] std::string Start(int argc, char** argv, const CNxServerOptions& options);
    [[nodiscard]] NxResult StartMainThread(int argc, char** argv);
    template <class OpenAt>
    NxResult OpenWith(const std::string& endpoint, const OpenAt& openAt);
    void OnSignal(int signo);
    void BeginStop();
    bool IsStopOver() const;
    void Reload();
    int End();

    // In this order: each uses what stands before it.
    std::unique_ptr<CNxThread, CDestory> m_main;
    std::unique_ptr<CEndObserver> m_endObserver;
    CNxReactorGroup m_group;
    std::unique_ptr<CSignals> m_signals;
    const CNxTimeValue m_stopLimit;
    CNxTimeValue m_stopStart;
    int m_signal = 0;
    bool m_isStopping = false;
    bool m_isToEndNow = false;  // another signal came
    std::string m_error;
    std::function<void()> m_onReload;
    std::function<void()> m_onStop;
};
