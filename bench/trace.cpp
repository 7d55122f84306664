// Trace lines to a file, each with the time, the process and the thread in front of its text, and
// lines of a level that is switched off: the time of a line.
#include <fcntl.h>
#include <nx/nx.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "bench.h"

#ifdef NXBENCH_HAS_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif
#ifdef NXBENCH_HAS_GLOG
#include <glog/logging.h>
#endif

namespace bench {

namespace {

constexpr char c_text[] = "session 4711: 42 bytes received, 1 message, queue 0";

// Each kind below opens the file of that path, writes lines with c_text to it, and has every
// `linesPerFlush`-th line of a thread in the hands of the system when Write returns. WriteOff
// writes a line of a level that is off.

// write(2) of what has come together.
class RawTrace {
public:
    RawTrace(const std::string& path, long linesPerFlush)
        : m_fd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)),
          m_linesPerFlush(linesPerFlush) {
        Require(m_fd != -1, path.c_str());
    }

    void Write() {
        std::array<char, 256> line{};
        const size_t length = Format(line);
        if (m_linesPerFlush == 1) {
            Put(line.data(), length);
            return;
        }
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_buffer.append(line.data(), length);
        if (++m_lines % m_linesPerFlush == 0) {
            Put(m_buffer.data(), m_buffer.size());
            m_buffer.clear();
        }
    }

    void WriteOff() {
        if (m_isEnabled.load(std::memory_order_relaxed) &&
            m_level.load(std::memory_order_relaxed) != 0) {
            Write();
        }
    }

private:
    // The text of a second is made once.
    static size_t Format(std::array<char, 256>& line) {
        thread_local time_t second = 0;
        thread_local std::array<char, 32> date{};
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        if (now.tv_sec != second) {
            second = now.tv_sec;
            tm parts{};
            localtime_r(&second, &parts);
            std::strftime(date.data(), date.size(), "%m/%d/%Y %H:%M:%S", &parts);
        }
        return static_cast<size_t>(std::snprintf(line.data(), line.size(),
                                                 "[%s.%03d pid=%d tid=%d] Info:%s\n", date.data(),
                                                 static_cast<int>(now.tv_nsec / 1000000), getpid(),
                                                 static_cast<int>(pthread_self()), c_text));
    }

    void Put(const char* data, size_t size) const {
        Require(write(m_fd, data, size) == static_cast<ssize_t>(size), "write");
    }

    const int m_fd;
    const long m_linesPerFlush;
    std::mutex m_mutex;
    std::string m_buffer;
    long m_lines = 0;
    std::atomic<bool> m_isEnabled{true};
    std::atomic<int> m_level{0};
};

class NxTrace {
public:
    NxTrace(const std::string& path, long linesPerFlush)
        : m_file(T120_Open_Trace_Dev(path.c_str(), 0, 0, 1)) {
        refresh_trace_config();  // without a configuration: the master switch is on, no level is
        T120_Refresh_Settings(0, static_cast<int>(linesPerFlush));
    }
    void Write() { T120_Write_Trace_Dev(m_file, "Log", "Info", c_text); }
    void WriteOff() { m_trace->trace_string(26, c_text, false); }

private:
    void* const m_file;
    CNxT120Trace* const m_trace = CNxT120Trace::instance();
};

#ifdef NXBENCH_HAS_SPDLOG
class SpdlogTrace {
public:
    SpdlogTrace(const std::string& path, long linesPerFlush)
        : m_logger(spdlog::basic_logger_mt("bench", path)), m_linesPerFlush(linesPerFlush) {
        m_logger->set_pattern("[%m/%d/%Y %H:%M:%S.%e pid=%P tid=%t] %l:%v");
        if (linesPerFlush == 1) {
            m_logger->flush_on(spdlog::level::info);
        }
    }
    void Write() {
        m_logger->info(c_text);
        thread_local long lines = 0;
        if (m_linesPerFlush > 1 && ++lines % m_linesPerFlush == 0) {
            m_logger->flush();
        }
    }
    void WriteOff() { m_logger->trace(c_text); }

private:
    const std::shared_ptr<spdlog::logger> m_logger;
    const long m_linesPerFlush;
};
#endif

#ifdef NXBENCH_HAS_GLOG
class GlogTrace {
public:
    GlogTrace(const std::string& path, long linesPerFlush) : m_linesPerFlush(linesPerFlush) {
        FLAGS_logbufsecs = linesPerFlush == 1 ? 0 : 3600;
        FLAGS_timestamp_in_logfile_name = false;
        FLAGS_log_dir = GetScratchFolder();
        google::SetLogDestination(google::GLOG_INFO, path.c_str());
        google::InitGoogleLogging("bench");
    }
    void Write() {
        LOG(INFO) << c_text;
        thread_local long lines = 0;
        if (m_linesPerFlush > 1 && ++lines % m_linesPerFlush == 0) {
            google::FlushLogFiles(google::GLOG_INFO);
        }
    }
    void WriteOff() { VLOG(1) << c_text; }

private:
    const long m_linesPerFlush;
};
#endif

long CountLines(const std::string& path) {
    std::ifstream file(path);
    long lines = 0;
    for (std::string line; std::getline(file, line);) {
        lines += line.find(c_text) != std::string::npos ? 1 : 0;
    }
    return lines;
}

template <class Trace>
double WriteLines(int threadCount, long linesPerFlush) {
    const std::string path = GetScratchFolder() + "/trace.log";
    unlink(path.c_str());
    Trace& trace = *new Trace(path, linesPerFlush);
    // Every thread ends with a flush.
    const long each = (Times(linesPerFlush == 1 ? 100000 : 200000) / threadCount / 100 + 1) * 100;
    std::vector<std::thread> threads;
    threads.reserve(static_cast<size_t>(threadCount));
    const double start = NowInNs();
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&trace, each, i] {
            PinTo(i);
            for (long n = 0; n < each; ++n) {
                trace.Write();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const double end = NowInNs();
    Require(CountLines(path) == each * threadCount, "lines are missing");
    return (end - start) / static_cast<double>(each * threadCount);
}

template <class Trace>
double WriteSwitchedOff() {
    PinTo(1);
    const std::string path = GetScratchFolder() + "/trace.log";
    unlink(path.c_str());
    Trace& trace = *new Trace(path, 1);
    const long times = Times(10000000);
    const double start = NowInNs();
    for (long i = 0; i < times; ++i) {
        trace.WriteOff();
        asm volatile("" ::: "memory");
    }
    const double end = NowInNs();
    Require(CountLines(path) == 0, "the level is on");
    return (end - start) / static_cast<double>(times);
}

// Without threads: a level that is switched off.
template <class Trace>
void AddRow(std::vector<Case>& cases, const char* name, const char* row, int threads,
            long linesPerFlush) {
    cases.push_back({"trace", name, row, 0, [=] {
                         return threads == 0 ? WriteSwitchedOff<Trace>()
                                             : WriteLines<Trace>(threads, linesPerFlush);
                     }});
}

void AddRows(std::vector<Case>& cases, const char* name, int threads, long linesPerFlush) {
    AddRow<RawTrace>(cases, name, "raw", threads, linesPerFlush);
    AddRow<NxTrace>(cases, name, "nxbase", threads, linesPerFlush);
#ifdef NXBENCH_HAS_SPDLOG
    AddRow<SpdlogTrace>(cases, name, "spdlog", threads, linesPerFlush);
#endif
#ifdef NXBENCH_HAS_GLOG
    AddRow<GlogTrace>(cases, name, "glog", threads, linesPerFlush);
#endif
}

}  // namespace

void AddTrace(std::vector<Case>& cases) {
    AddRows(cases, "each line flushed, 1 thread", 1, 1);
    AddRows(cases, "each line flushed, 2 threads", 2, 1);
    AddRows(cases, "flushed every 100 lines", 1, 100);
    AddRows(cases, "level switched off", 0, 1);
}

}  // namespace bench
