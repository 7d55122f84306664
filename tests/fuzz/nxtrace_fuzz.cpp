// The trace reader: no bytes make it read outside them, and reading a file that changes in between
// gives only records that stand in it.
#include <algorithm>
#include <ctime>

#include "CTraceFile.h"
#include "Fuzz.h"
#include "trace_filter.h"
#include "trace_print.h"

namespace {

void CheckRecords(const CTraceBatch& batch) {
    const char* const begin = batch.m_content.data();
    const char* const end = begin + batch.m_content.size();
    for (const CTraceRecord& record : batch.m_records) {
        Require(record.m_line.data() >= begin &&
                record.m_line.data() + record.m_line.size() <= end &&
                record.m_text.data() >= record.m_line.data() &&
                record.m_text.data() + record.m_text.size() ==
                    record.m_line.data() + record.m_line.size());
    }
}

void Show(const CTraceBatch& batch) {
    static FILE* const s_null = std::fopen("/dev/null", "we");
    CTraceFilter filter;
    Require(filter.SetLevels("info,Error").empty() && filter.SetPattern("a.*b").empty());
    CTraceStat stat;
    for (const CTraceRecord& record : batch.m_records) {
        filter.Accepts(record);
        stat.Add(record);
        PrintRecord(s_null, EOutput::JSON, record);
        PrintRecord(s_null, EOutput::TERMINAL, record);
    }
    stat.Print(s_null);
}

}  // namespace

// The reader waits for writers between its tries; here are none.
extern "C" int nanosleep(const timespec* /*time*/, timespec* /*left*/) {
    return 0;
}

// States of one file, one after the other; bytes of value 1 part them.
void Fuzz(std::string_view input) {
    CFuzzFile place("");
    CTraceFile file(place.Path());
    for (size_t at = 0, end = 0; at < input.size(); at = end + 1) {
        end = std::min(input.find('\1', at), input.size());
        place.Put(input.substr(at, end - at));
        CTraceBatch batch;
        if (file.ReadNew(batch) == CTraceFile::READ) {
            CheckRecords(batch);
            Show(batch);
        }
    }
}
