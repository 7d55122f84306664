// The harness: what a case is, and what measuring it takes.
#pragma once

#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace bench {

// One measurement. It has a process of its own, forked from one with a single thread, and that
// process ends with it: what a case starts and allocates it need not end and free. A case that
// takes longer than a minute has failed.
struct Case {
    std::string family;
    std::string name;             // what is done; "{}" stands for `x`
    std::string row;              // who does it: "raw", "nxbase" with or without more, or a peer
    long x;                       // how many, on a curve; 0 for a case that has no curve
    std::function<double()> run;  // returns the value of an operation, having proved the work
    std::string unit = "ns";      // of the value: "ns" or "bytes"
};

// The families, each from its own file: they append their cases, the rows of one case in a row.
void AddPost(std::vector<Case>& cases);
void AddCall(std::vector<Case>& cases);
void AddWake(std::vector<Case>& cases);
void AddTimers(std::vector<Case>& cases);
void AddTrace(std::vector<Case>& cases);
void AddEcho(std::vector<Case>& cases);
void AddBlock(std::vector<Case>& cases);
void AddConnections(std::vector<Case>& cases);
void AddKv(std::vector<Case>& cases);
void AddHttp(std::vector<Case>& cases);

// How a type is handed to a generic function.
template <class T>
struct Kind {
    using Type = T;
};

// Whether each case only has to show that it works.
bool IsSmoke();

// How many operations to do: `full`, and in a smoke run next to none.
long Times(long full);
// How many of what a curve is over: `full`, and in a smoke run a hundred at most.
long Size(long full);

// Ends the measurement as failed unless `ok`. Any thread.
void Require(bool ok, const char* what);

// Keeps the calling thread, and those that it starts from now on, on that processor (0 or 1).
void PinTo(int cpu);

// Of the monotonic clock.
double NowInNs();

// The processor time that all threads of a process have taken so far. It has nothing to do for the
// moment: the call takes 5 ms to see to that.
double CpuTimeInNs(pid_t process);

// Runs `body` in a new process, which is ended with the measurement at the latest.
pid_t StartProcess(const std::function<void()>& body);
void EndProcess(pid_t process);

// The folder that a case may write to.
const std::string& GetScratchFolder();

// Waits until something has happened so many times. Any thread.
class Latch {
public:
    explicit Latch(long count) : m_count(count) {}

    void CountDown() {
        bool isLast = false;
        {
            const std::lock_guard<std::mutex> guard(m_mutex);
            isLast = --m_count == 0;
        }
        if (isLast) {
            m_condition.notify_one();
        }
    }

    // Then counts from `next`.
    void Wait(long next = 0) {
        std::unique_lock<std::mutex> guard(m_mutex);
        m_condition.wait(guard, [this] { return m_count == 0; });
        m_count = next;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    long m_count;
};

}  // namespace bench
