// The trace reader: no bytes make it read outside them, and reading a file that changes in between
// gives only records that stand in it.
#include <ctime>

#include "CTraceFile.h"
#include "Fuzz.h"
#include "trace_filter.h"
#include "trace_print.h"

namespace {

void Check(const CTraceBatch& batch) {
    static FILE* const s_null = std::fopen("/dev/null", "we");
    const char* const end = batch.m_content.data() + batch.m_content.size();
    CTraceFilter filter;
    Require(filter.SetLevels("info,Error").empty() && filter.SetPattern("a.*b").empty());
    CTraceStat stat;
    for (const CTraceRecord& record : batch.m_records) {
        const char* const endOfLine = record.m_line.data() + record.m_line.size();
        Require(record.m_line.data() >= batch.m_content.data() && endOfLine <= end);
        Require(record.m_text.data() >= record.m_line.data() &&
                record.m_text.data() + record.m_text.size() == endOfLine);
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
    CFuzzBytes states{input};
    CFuzzFile place("");
    CTraceFile file(place.Path());
    while (!states.m_left.empty()) {
        place.Put(states.TakeUntil('\1'));
        CTraceBatch batch;
        if (file.ReadNew(batch) == CTraceFile::READ) {
            Check(batch);
        }
    }
}
