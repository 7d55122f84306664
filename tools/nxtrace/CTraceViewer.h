// Shows the records of many trace files as one stream, oldest first.
#pragma once

#include <cassert>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "CTraceFile.h"
#include "trace_filter.h"
#include "trace_name.h"
#include "trace_print.h"

// Reads one file of each series (process, kind, process id) at a time, so that its memory is that
// of the largest files and not of all of them.
class CTraceViewer {
public:
    CTraceViewer(const CTraceFilter& filter, EOutput output) : m_filter(filter), m_output(output) {}

    // Once, whatever paths lead to it.
    void AddFile(const std::string& path);
    // All files of the folder, or those of one process (not empty), now and, when following, later.
    void AddFolder(const std::string& folder, const std::string& process);

    bool IsEmpty() const { return m_sources.empty(); }

    // All records, or the last `count`.
    void PrintAll();
    void PrintLast(size_t count);
    void PrintStat();
    // Does not return, except when standard output is gone. Prints what comes from now on, and
    // looks for the next files of each series.
    void Follow();

    // Whether a file or folder could not be read; each has been reported on standard error.
    bool HasFailed() const { return m_hasFailed; }

private:
    struct CSource {
        explicit CSource(const std::string& path, size_t pass = 0)
            : m_file(path), m_name(NameOfTraceFile(path)), m_pass(pass) {}
        bool IsSameSeries(const CSource& other) const {
            return m_name.IsGiven() && m_name.IsSameSeries(other.m_name);
        }
        bool IsAfter(const CSource& other) const {
            return m_pass != other.m_pass ? m_pass > other.m_pass
                                          : m_name.IsLaterThan(other.m_name);
        }
        bool IsInfo() const { return m_name.m_kind == "info"; }
        CTraceFile m_file;
        CTraceName m_name;
        // In which pass it was found; files that were there at the beginning are in the order of
        // their names.
        size_t m_pass;
        // Nothing more comes: unreadable, or replaced by the next file.
        bool m_isDone = false;
    };
    using CSources = std::vector<std::shared_ptr<CSource>>;
    struct CFolder {
        std::string m_path;
        std::string m_process;
    };
    // The sources of one series in their order, and the file that is being shown.
    struct CCursor {
        CSources m_sources;
        size_t m_next = 0;
        CTraceBatch m_batch;
        size_t m_record = 0;
        const CTraceRecord& Front() const {
            assert(m_record < m_batch.m_records.size());
            return m_batch.m_records[m_record];
        }
        const CSource& Source() const {
            assert(m_next > 0 && m_next <= m_sources.size());
            return *m_sources[m_next - 1];
        }
    };

    template <class Sink>
    void Merge(Sink sink);
    std::vector<CCursor> MakeCursors() const;
    [[nodiscard]] bool Advance(CCursor& cursor);
    [[nodiscard]] bool LoadNext(CCursor& cursor);
    [[nodiscard]] bool Read(CSource& source, CTraceBatch& batch);
    void Report(const std::string& path, const char* problem);
    [[nodiscard]] bool IsWanted(const CTraceRecord& record, const CSource& source);
    bool HasSuccessor(const CSource& source) const;
    bool Continues(const CSource& added) const;
    void FindNewFiles();

    const CTraceFilter& m_filter;
    EOutput m_output;
    CSources m_sources;
    // Every file ever added, whatever path led to it, and those that are not to be shown.
    std::set<std::string> m_known;
    std::vector<CFolder> m_folders;
    CTraceDuplicates m_duplicates;
    bool m_hasFailed = false;
    // How often new files have been looked for: from 1 on while following.
    size_t m_pass = 0;
};
