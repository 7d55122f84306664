// The requests that one connection has under way, and the check of their replies.
#pragma once

#include <kv_load/LatencyHistogram.h>
#include <kv_load/Workload.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kv_load {

// A queue of requests that wait for their replies, oldest first. Since every right reply is known
// to the byte, what comes in is compared, not parsed, and may be cut anywhere.
// Allocates at construction only.
class Pipeline {
public:
    // At most `depth` requests, at least 1, of the workload, which outlives the pipeline.
    Pipeline(Workload& workload, std::size_t depth);

    bool IsEmpty() const { return m_count == 0; }
    bool IsFull() const { return m_count == m_requests.size(); }

    // Makes up the next request, writes its bytes and returns their end. Not when full.
    char* WriteNext(char* out);

    // Those written since the last call are handed to the kernel now.
    void MarkSent(std::int64_t now);

    // Takes what the server sent and records the latency of every request whose reply is complete
    // with it. False when a byte is not the expected one: DescribeMismatch() tells, and nothing
    // more may be checked.
    bool Check(const char* data, std::size_t size, std::int64_t now, LatencyHistogram& latency);

    // For people; the second is what the server still has to answer.
    const std::string& DescribeMismatch() const { return m_mismatch; }
    std::string DescribeDebt() const;

private:
    void RememberMismatch(const char* data, std::size_t size);
    void Pop();

    Workload& m_workload;
    // A ring.
    std::vector<Request> m_requests;
    std::size_t m_first = 0;
    std::size_t m_count = 0;
    // How many of the newest are not handed to the kernel yet.
    std::size_t m_unsent = 0;

    // The reply to the oldest request, valid while a part of it has come.
    std::unique_ptr<char[]> m_reply;
    std::size_t m_replySize = 0;
    std::size_t m_matched = 0;
    std::string m_mismatch;
};

}  // namespace kv_load
