// What one connection asks, and what the server has to answer.
#pragma once

#include <kv_load/LatencyHistogram.h>
#include <nx/buffer/CNxMessageChain.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace kv_load {

// Makes up requests on keys that no other connection touches, so that the one right reply to each
// is known when it is made up: the server answers a connection in order. What comes is compared
// with that, not parsed, and may be cut anywhere. The requests depend on the constructor's
// arguments only.
class Conversation {
public:
    // The keys are `prefix` followed by the 9-digit numbers from `firstKey` on, and the one behind
    // them is a counter. None of them may exist on the server. `keyCount` is at least 1.
    Conversation(const std::string& prefix, std::uint32_t firstKey, std::uint32_t keyCount,
                 std::size_t valueSize);

    // Appends the next request, which is asked at the time `now`.
    void Ask(CNxMessageChain& out, std::int64_t now);

    // Takes what the server sent, and records how long every request took whose reply is complete
    // with it. Returns what is wrong, after which nothing more may be checked; "" if nothing is.
    [[nodiscard]] std::string Check(CNxMessageChain& received, std::int64_t now,
                                    LatencyHistogram& latency);

    // Requests whose replies are still to come.
    std::size_t GetOpen() const { return m_open.size(); }

    // "no reply", "16 replies, the next to GET load:...", for people.
    std::string DescribeDebt() const;

private:
    enum EKind : std::uint8_t { SET, GET, INCR, PING };

    struct Request {
        EKind kind;
        std::uint32_t key;
        // SET and GET: the version of the value. INCR: the counter after it.
        std::uint64_t number;
        std::int64_t askedAt;
    };

    // How requests of one kind are asked and answered. Key, value and counter are put in anew each
    // time.
    struct Form {
        std::string request;
        std::string reply;
        std::size_t keyAt = 0;
    };

    Request MakeUp(std::int64_t now);
    void PutValue(std::string& text, const Request& request) const;
    void PutReply();
    std::string Describe(const Request& request) const;
    std::string DescribeMismatch(std::string_view came) const;

    const std::string m_prefix;
    const std::uint32_t m_firstKey;
    const std::size_t m_valueSize;
    std::array<Form, 4> m_forms;  // by kind

    std::uint64_t m_random;
    std::uint64_t m_counter = 0;
    // By key; 0 for one that was not set yet.
    std::vector<std::uint32_t> m_versions;

    std::deque<Request> m_open;  // oldest first
    // Bytes of the reply to the oldest that have come.
    std::size_t m_matched = 0;
};

}  // namespace kv_load
