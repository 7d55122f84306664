// What the programs have around their work: threads, signals, and the way they fail.
#pragma once

#include <common/CommandLine.h>
#include <common/SignalThread.h>
#include <nx/foundation/NxResult.h>
#include <sys/resource.h>

#include <atomic>
#include <functional>
#include <initializer_list>
#include <string>

class CNxThread;
class INxReactor;

namespace examples {

constexpr int c_statusSignal = 128;  // plus the signal's number

// For what only a lack of memory or a mistake makes fail: unless the result is a success (NX_OK, or
// NX_ERROR_FOUND for what was replaced) exits with a message, "cannot `what`". Any thread.
void Require(NxResult result, const char* what);

// Raises the soft limit of open descriptors to `wanted` where it is lower. False when that is not
// allowed. To be called before a reactor is opened: it has as many places as the limit says then.
[[nodiscard]] bool AllowDescriptors(rlim_t wanted);

// Ends the main loop. Any thread.
void StopMain();

// What a program does on its network thread.
struct NetworkWork {
    std::function<std::string()> open;        // returns what is wrong, or ""
    std::function<void()> close;              // also called after a failed `open`
    std::function<void()> onStop = StopMain;  // at the first SIGINT or SIGTERM
    std::function<void()> onHangUp = {};      // at every SIGHUP

    // Seconds after the first signal to stop at which the process ends with status 0, whatever is
    // still under way; 0 for never.
    unsigned stopLimit = 0;
};

// A main thread that only waits, and a network thread that does the work. One per process, used on
// the main thread.
class Program {
public:
    // TO BE MADE BEFORE THERE IS ANY OTHER THREAD: blocks the signals, as SignalThread says. A
    // standard stream that the process was started without leads nowhere from here on: else the
    // next connection would be it.
    explicit Program(std::initializer_list<int> signals = {SIGINT, SIGTERM});

    // Makes the caller the main thread.
    [[nodiscard]] bool Init(int argc, char** argv);

    // Starts the network thread, which owns the reactor from here on, also when this fails.
    [[nodiscard]] bool StartNetwork(INxReactor* reactor);
    INxReactor& GetReactor() const;

    // Opens the work, takes signals, and waits until StopMain or CNxSignalStop ends the main loop,
    // or the network's loop has ended by itself; then closes the work, and stops and joins all
    // threads. Returns what is wrong, or "".
    [[nodiscard]] std::string Run(const NetworkWork& work);

    // The first signal to stop that came; 0 for none. After Run.
    int GetSignal() const { return m_signal; }

private:
    std::string OpenAll(const NetworkWork& work);
    void OnSignal(int signo, const NetworkWork& work);
    void OnTaken(int signo, unsigned stopLimit);
    void CloseWithThread(const NetworkWork& work);

    SignalThread m_signals;
    CNxThread* m_network = nullptr;  // the thread manager's
    int m_signal = 0;
    bool m_isStopAsked = false;  // the signal thread's
    std::atomic<bool> m_isServing{false};
    std::atomic<bool> m_isNetworkGone{false};
};

}  // namespace examples
