// One trace file being read, once or again and again while it is written.
#pragma once

#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "trace_record.h"

// The records that one reading found, with the bytes they point into.
struct CTraceBatch {
    std::string m_content;
    std::vector<CTraceRecord> m_records;
    // Which file of the caller's list; the caller's business.
    size_t m_file = 0;
};

// Never locks the file: a reader that stops, stopped by its terminal perhaps, must not stop the
// writers. Instead it reads the header before and after the rest.
class CTraceFile {
public:
    enum EResult { READ, UNCHANGED, NO_TRACE_FILE, SYSTEM_ERROR };

    explicit CTraceFile(std::string path) : m_path(std::move(path)) {}

    const std::string& Path() const { return m_path; }

    // Reads what has come since the last call, at first everything. UNCHANGED leaves the batch
    // alone. Records that were overwritten between two calls are lost. SYSTEM_ERROR sets errno.
    [[nodiscard]] EResult ReadNew(CTraceBatch& batch);

private:
    [[nodiscard]] bool ReadGrowth(int fd, std::string_view header, CTraceBatch& batch);
    [[nodiscard]] EResult ReadAll(int fd, CTraceBatch& batch);
    void TakeNew(const CTraceLayout& layout, CTraceBatch& batch);
    void Remember(std::string_view header, size_t end, std::string_view bytes);
    bool IsSeenPartThere(std::string_view content) const;

    std::string m_path;
    // What the last reading ended with, and where: when it still stands there, what follows is
    // new; when not, the whole file is.
    std::string m_lastBytes;
    size_t m_lastEnd = 0;
    // As long as both are the same, nothing has been written.
    std::string m_lastHeader;
    timespec m_lastWrite{};
};
