#include "CTraceViewer.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <queue>
#include <set>
#include <thread>
#include <tuple>

namespace {

constexpr auto FOLLOW_INTERVAL = std::chrono::milliseconds(100);

}  // namespace

void CTraceViewer::AddFile(const std::string& path) {
    if (!m_known.insert(path).second) {
        return;
    }
    std::error_code error;
    const std::string place = std::filesystem::weakly_canonical(path, error).string();
    if (!error && place != path && !m_known.insert(place).second) {
        return;
    }
    m_sources.push_back(std::make_shared<CSource>(path, m_pass));
}

void CTraceViewer::AddFolder(const std::string& folder, const std::string& process) {
    std::vector<std::string> paths;
    if (!FindTraceFiles(folder, process, paths)) {
        Report(folder, std::strerror(errno));
    }
    for (const std::string& path : paths) {
        AddFile(path);
    }
    m_folders.push_back({folder, process});
}

void CTraceViewer::PrintAll() {
    Merge([this](const CTraceRecord& record) { PrintRecord(stdout, m_output, record); });
}

void CTraceViewer::PrintLast(size_t count) {
    std::deque<std::string> lines;
    Merge([&](const CTraceRecord& record) {
        lines.emplace_back(record.m_line);
        if (lines.size() > count) {
            lines.pop_front();
        }
    });
    for (const std::string& line : lines) {
        CTraceRecord record;
        if (ParseRecord(line, record)) {
            PrintRecord(stdout, m_output, record);
        }
    }
}

void CTraceViewer::PrintStat() {
    CTraceStat stat;
    Merge([&](const CTraceRecord& record) { stat.Add(record); });
    stat.Print(stdout);
}

void CTraceViewer::Follow() {
    while (std::fflush(stdout) == 0) {
        const auto isDone = [](const auto& source) { return source->m_isDone; };
        m_sources.erase(std::remove_if(m_sources.begin(), m_sources.end(), isDone),
                        m_sources.end());
        if (m_sources.empty() && m_folders.empty()) {
            return;
        }
        std::this_thread::sleep_for(FOLLOW_INTERVAL);
        FindNewFiles();
        PrintAll();
    }
}

// Gives the wanted records of all sources to the sink, the oldest of the series' first ones at
// a time: within a series the order of writing counts, even when the clock was set back.
template <class Sink>
void CTraceViewer::Merge(Sink sink) {
    std::vector<CCursor> cursors = MakeCursors();
    // Of records of the same millisecond those of an info file come first: it has them all, in
    // order, and the copies in the other files are then known as such.
    const auto rank = [&](size_t i) {
        return std::make_tuple(cursors[i].Front().m_time, !cursors[i].Source().IsInfo(), i);
    };
    const auto isLater = [&](size_t a, size_t b) { return rank(a) > rank(b); };
    std::priority_queue<size_t, std::vector<size_t>, decltype(isLater)> queue(isLater);
    for (size_t i = 0; i < cursors.size(); ++i) {
        if (LoadNext(cursors[i])) {
            queue.push(i);
        }
    }
    while (!queue.empty()) {
        const size_t i = queue.top();
        queue.pop();
        CCursor& cursor = cursors[i];
        if (IsWanted(cursor.Front(), cursor.Source())) {
            sink(cursor.Front());
        }
        if (Advance(cursor)) {
            queue.push(i);
        }
    }
}

std::vector<CTraceViewer::CCursor> CTraceViewer::MakeCursors() const {
    std::vector<CCursor> cursors;
    for (const auto& source : m_sources) {
        const auto isSeries = [&](const CCursor& cursor) {
            return source->IsSameSeries(*cursor.m_sources.front());
        };
        auto found = std::find_if(cursors.begin(), cursors.end(), isSeries);
        if (found == cursors.end()) {
            found = cursors.emplace(cursors.end());
        }
        found->m_sources.push_back(source);
    }
    // Info files are read last: they then have all that was found in the others.
    std::stable_partition(cursors.begin(), cursors.end(), [](const CCursor& cursor) {
        return !cursor.m_sources.front()->IsInfo();
    });
    for (CCursor& cursor : cursors) {
        std::stable_sort(cursor.m_sources.begin(), cursor.m_sources.end(),
                         [](const auto& a, const auto& b) { return b->IsAfter(*a); });
    }
    return cursors;
}

bool CTraceViewer::Advance(CCursor& cursor) {
    ++cursor.m_record;
    return cursor.m_record < cursor.m_batch.m_records.size() || LoadNext(cursor);
}

// Reads the next source that has records.
bool CTraceViewer::LoadNext(CCursor& cursor) {
    cursor.m_record = 0;
    while (cursor.m_next < cursor.m_sources.size()) {
        CSource& source = *cursor.m_sources[cursor.m_next++];
        if (Read(source, cursor.m_batch) && !cursor.m_batch.m_records.empty()) {
            return true;
        }
    }
    return false;
}

bool CTraceViewer::Read(CSource& source, CTraceBatch& batch) {
    const CTraceFile::EResult result = source.m_file.ReadNew(batch);
    if (result == CTraceFile::UNCHANGED) {
        source.m_isDone = HasSuccessor(source);
        return false;
    }
    if (result == CTraceFile::READ) {
        return true;
    }
    source.m_isDone = true;
    // A file that is followed may be cleaned away.
    const bool isFollowing = m_pass > 0;
    if (!isFollowing || errno != ENOENT || result == CTraceFile::NO_TRACE_FILE) {
        Report(source.m_file.Path(),
               result == CTraceFile::NO_TRACE_FILE ? "not a trace file" : std::strerror(errno));
    }
    return false;
}

void CTraceViewer::Report(const std::string& path, const char* problem) {
    std::fprintf(stderr, "nxtrace: %s: %s\n", path.c_str(), problem);
    m_hasFailed = true;
}

bool CTraceViewer::IsWanted(const CTraceRecord& record, const CSource& source) {
    return m_filter.Accepts(record) &&
           !(source.m_name.IsGiven() && m_duplicates.IsSecond(record, source.m_name));
}

bool CTraceViewer::HasSuccessor(const CSource& source) const {
    return std::any_of(m_sources.begin(), m_sources.end(), [&](const auto& other) {
        return other->IsSameSeries(source) && other->IsAfter(source);
    });
}

// Whether the file comes after all files of a series that is shown: when following began, by its
// name; later, by having appeared since - its date may be earlier when the clock was set back.
bool CTraceViewer::Continues(const CSource& added) const {
    const auto isSeries = [&](const auto& source) { return source->IsSameSeries(added); };
    const auto isBefore = [&](const auto& source) {
        return !isSeries(source) || added.IsAfter(*source);
    };
    return std::any_of(m_sources.begin(), m_sources.end(), isSeries) &&
           (m_pass > 1 || std::all_of(m_sources.begin(), m_sources.end(), isBefore));
}

void CTraceViewer::FindNewFiles() {
    ++m_pass;
    std::vector<std::string> found;
    for (const CFolder& folder : m_folders) {
        // A folder that cannot be read now is looked at again in the next pass.
        static_cast<void>(FindTraceFiles(folder.m_path, folder.m_process, found));
    }
    std::set<std::pair<std::string, std::string>> places;
    for (const auto& source : m_sources) {
        if (source->m_name.IsGiven()) {
            places.emplace(source->m_name.m_folder, source->m_name.m_process);
        }
    }
    std::vector<std::string> others;
    for (const auto& [folder, process] : places) {
        static_cast<void>(FindTraceFiles(folder, process, others));  // as above
    }
    std::vector<std::string> passedOver;
    for (const std::string& path : others) {
        if (m_known.count(path) == 0) {
            (Continues(CSource(path)) ? found : passedOver).push_back(path);
        }
    }
    for (const std::string& path : found) {
        AddFile(path);
    }
    m_known.insert(passedOver.begin(), passedOver.end());
}
