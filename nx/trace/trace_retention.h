// Inside the library only: removes old trace files.
#pragma once

#include <string>

// What is kept; 0 sets no limit.
struct CTraceRetention {
    unsigned long m_files = 0;
    unsigned long m_days = 0;
};

// Of the files of `folder` that are named `start` MMDDYYYY_N.PID.log, removes those beyond the
// `m_files` last written ones and those not written for `m_days` times 24 hours. A file that a
// process has open for tracing stays, and so does `current`, which counts as the newest.
// What cannot be removed stays; the next call tries again.
void RemoveOldTraceFiles(const std::string& folder, const std::string& start,
                         const std::string& current, const CTraceRetention& keep);
