// The driver: runs every case in rounds, A B C A B C, each in a process of its own, and writes what
// came out as JSON.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <thread>

#include "bench.h"

namespace bench {

namespace {

bool s_isSmoke = false;
std::string s_scratchFolder;

constexpr unsigned c_longest = 60;  // seconds

// A measurement is made anew, twice at most, when others took more of the processors than this, in
// seconds, and this part of the time; all of that together takes no more than c_againAtMost, spread
// over the rounds.
constexpr double c_othersLeast = 0.03;
constexpr double c_othersPart = 0.05;
constexpr double c_againAtMost = 60;

#ifdef __clang__
constexpr const char* c_compiler = __VERSION__;
#else
constexpr const char* c_compiler = "g++ " __VERSION__;
#endif

// Seconds that the processors were busy, since the system started.
double BusySeconds() {
    std::ifstream file("/proc/stat");
    std::string label;
    std::array<double, 8> times{};  // user nice system idle iowait irq softirq steal
    file >> label;
    for (double& time : times) {
        file >> time;
    }
    const double all = std::accumulate(times.begin(), times.end(), 0.0);
    return (all - times[3] - times[4]) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double ToSeconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

struct Measurement {
    double value = 0;  // 0 for a case that failed
    bool isDisturbed = false;
    double seconds = 0;
};

Measurement Measure(const Case& one) {
    std::array<int, 2> ends{};
    Require(pipe2(ends.data(), O_CLOEXEC) == 0, "pipe");
    const double busyBefore = BusySeconds();
    const double start = NowInNs();
    const pid_t child = StartProcess([&] {
        alarm(c_longest);
        // What libraries and servers have to say.
        Require(std::freopen("/dev/null", "w", stdout) != nullptr, "/dev/null");
        const double value = one.run();
        Require(write(ends[1], &value, sizeof(value)) == sizeof(value), "write the result");
    });
    close(ends[1]);
    rusage used{};
    int status = 0;
    Require(wait4(child, &status, 0, &used) == child, "wait4");
    Measurement result;
    result.seconds = (NowInNs() - start) / 1e9;
    if (read(ends[0], &result.value, sizeof(result.value)) != sizeof(result.value) || status != 0) {
        result.value = 0;
    }
    if (WIFSIGNALED(status)) {
        std::fprintf(stderr, "bench: ended by signal %d\n", WTERMSIG(status));
    }
    close(ends[0]);
    const double others =
        BusySeconds() - busyBefore - ToSeconds(used.ru_utime) - ToSeconds(used.ru_stime);
    result.isDisturbed = others > std::max(c_othersLeast, c_othersPart * result.seconds);
    return result;
}

struct Result {
    std::vector<double> values;  // one a round
    int disturbed = 0;           // rounds
};

class Run {
public:
    Run(std::vector<Case> cases, int rounds)
        : m_cases(std::move(cases)), m_results(m_cases.size()), m_rounds(rounds) {}

    bool MeasureAll() {
        for (int round = 1; round <= m_rounds; ++round) {
            for (size_t i = 0; i < m_cases.size(); ++i) {
                if (i == 0 || m_cases[i].family != m_cases[i - 1].family) {
                    std::fprintf(stderr, "%4.0f s  round %d of %d: %s\n",
                                 (NowInNs() - m_start) / 1e9, round, m_rounds,
                                 m_cases[i].family.c_str());
                }
                const double again = c_againAtMost * round / m_rounds;
                if (!MeasureOne(i, again)) {
                    return false;
                }
            }
        }
        return true;
    }

    void WriteJson(const char* path) const {
        std::ofstream file(path);
        const char* separator = "{\"cases\": [\n";
        for (size_t i = 0; i < m_cases.size(); ++i) {
            const Case& one = m_cases[i];
            file << separator << R"({"family": ")" << one.family << R"(", "name": ")" << one.name
                 << R"(", "row": ")" << one.row << R"(", "x": )" << one.x << R"(, "unit": ")"
                 << one.unit << R"(", "disturbed": )" << m_results[i].disturbed
                 << R"(, "values": [)";
            const char* comma = "";
            for (const double value : m_results[i].values) {
                file << comma << value;
                comma = ", ";
            }
            file << "]}";
            separator = ",\n";
        }
        file << "\n], \"rounds\": " << m_rounds << ", \"seconds\": " << (NowInNs() - m_start) / 1e9
             << ", \"again_seconds\": " << m_againSeconds << ", \"compiler\": \"" << c_compiler
             << "\"}\n";
        file.close();
        Require(file.good(), path);
    }

private:
    // Again, too, until all repetitions have taken `againAtMost` seconds.
    bool MeasureOne(size_t i, double againAtMost) {
        Measurement best = Measure(m_cases[i]);
        for (int again = 0; again < 2 && best.value > 0 && best.isDisturbed && !s_isSmoke &&
                            m_againSeconds < againAtMost;
             ++again) {
            best = Measure(m_cases[i]);
            m_againSeconds += best.seconds;
        }
        if (!(best.value > 0)) {
            const Case& one = m_cases[i];
            std::fprintf(stderr, "bench: %s, %s (%ld), %s: failed\n", one.family.c_str(),
                         one.name.c_str(), one.x, one.row.c_str());
            return false;
        }
        m_results[i].values.push_back(best.value);
        m_results[i].disturbed += best.isDisturbed ? 1 : 0;
        return true;
    }

    const std::vector<Case> m_cases;
    std::vector<Result> m_results;
    const int m_rounds;
    const double m_start = NowInNs();
    double m_againSeconds = 0;
};

constexpr const char* c_usage =
    "usage: nxbench [--smoke] [--rounds N] [--only TEXT] [--json FILE]\n"
    "\n"
    "  --smoke        each case once and tiny: whether it works, not how fast\n"
    "  --rounds N     rounds over all cases (5)\n"
    "  --only TEXT    only cases with this in \"FAMILY, NAME (X), ROW\"\n"
    "  --json FILE    where the results go\n";

struct Options {
    int rounds = 5;
    std::string only;
    const char* json = nullptr;
};

bool Parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const char* const next = i + 1 < argc ? argv[i + 1] : nullptr;
        if (word == "--smoke") {
            s_isSmoke = true;
            options.rounds = 1;
            continue;
        }
        if (next == nullptr) {
            return false;
        }
        ++i;
        if (word == "--rounds") {
            options.rounds = std::atoi(next);
        } else if (word == "--only") {
            options.only = next;
        } else if (word == "--json") {
            options.json = next;
        } else {
            return false;
        }
    }
    return options.rounds > 0;
}

std::vector<Case> MakeCases(const std::string& only) {
    std::vector<Case> all;
    for (const auto add : {AddPost, AddCall, AddWake, AddTimers, AddTrace, AddEcho, AddConnections,
                           AddBlock, AddKv, AddHttp}) {
        add(all);
    }
    std::vector<Case> chosen;
    std::copy_if(all.begin(), all.end(), std::back_inserter(chosen), [&](const Case& one) {
        const std::string text =
            one.family + ", " + one.name + " (" + std::to_string(one.x) + "), " + one.row;
        return text.find(only) != std::string::npos;
    });
    return chosen;
}

// Makes the scratch folder, and takes it away again.
class ScratchFolder {
public:
    ScratchFolder() {
        s_scratchFolder = "/tmp/nxbench.XXXXXX";
        Require(mkdtemp(s_scratchFolder.data()) != nullptr, "mkdtemp");
    }
    ~ScratchFolder() {
        std::error_code ignored;  // What is left in /tmp harms nobody.
        std::filesystem::remove_all(s_scratchFolder, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
};

}  // namespace

bool IsSmoke() {
    return s_isSmoke;
}

long Times(long full) {
    return s_isSmoke ? std::max(full / 1000, 1L) : full;
}

long Size(long full) {
    return s_isSmoke ? std::min(full, 100L) : full;
}

void Require(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "bench: %s: %s\n", what, std::strerror(errno));
        _exit(1);
    }
}

void PinTo(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(cpu), &set);
    Require(sched_setaffinity(0, sizeof(set), &set) == 0, "two processors are needed");
}

double NowInNs() {
    return std::chrono::duration<double, std::nano>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double CpuTimeInNs(pid_t process) {
    // What a thread is taking is counted when it sleeps.
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    clockid_t clock{};
    timespec time{};
    Require(clock_getcpuclockid(process, &clock) == 0 && clock_gettime(clock, &time) == 0,
            "the process is gone");
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

pid_t StartProcess(const std::function<void()>& body) {
    const pid_t child = fork();
    Require(child != -1, "fork");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
        _exit(0);
    }
    return child;
}

void EndProcess(pid_t process) {
    kill(process, SIGKILL);
    Require(waitpid(process, nullptr, 0) == process, "waitpid");
}

const std::string& GetScratchFolder() {
    return s_scratchFolder;
}

}  // namespace bench

int main(int argc, char** argv) {
    bench::Options options;
    if (!bench::Parse(argc, argv, options)) {
        std::fputs(bench::c_usage, stderr);
        return 2;
    }
    const bench::ScratchFolder scratch;
    bench::Run run(bench::MakeCases(options.only), options.rounds);
    if (!run.MeasureAll()) {
        return 1;
    }
    if (options.json != nullptr) {
        run.WriteJson(options.json);
    }
    return 0;
}
