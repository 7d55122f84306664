// What one connection asks, and what the server has to answer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kv_load {

// A request that has been made up, as far as its reply depends on it.
struct Request {
    enum class Kind : std::uint8_t { SET, GET, INCR, PING };

    Kind kind = Kind::PING;
    std::uint32_t key = 0;
    // SET and GET: the version of the value. INCR: the counter after it.
    std::uint64_t number = 0;
    // When it was handed to the kernel, of NowNs().
    std::int64_t sentAt = 0;
};

// Makes up the requests of one connection on keys that no other connection touches, so that the
// one right reply to each is known when it is made up: the server answers a connection in order.
// A key is set before it is read. The sequence depends on the constructor's arguments only.
class Workload {
public:
    // The keys are `prefix` followed by the 8-digit numbers from `firstKey` on, and one counter.
    // None of them may exist on the server. `keyCount` is at least 1.
    Workload(const std::string& prefix, std::uint32_t firstKey, std::uint32_t keyCount,
             std::size_t valueSize);

    // What WriteNext and WriteReply need room for.
    std::size_t GetMaxRequestSize() const;
    std::size_t GetMaxReplySize() const;

    // Makes up the next request and writes its bytes; returns their end.
    char* WriteNext(char* out, Request& request);

    // Writes the right reply to a request made up before; returns its end.
    char* WriteReply(char* out, const Request& request) const;

    // "GET load:...", for people.
    std::string Describe(const Request& request) const;

private:
    std::uint64_t NextRandom();
    char* WriteSet(char* out, std::uint32_t key, Request& request);
    char* WriteGet(char* out, std::uint32_t key, Request& request) const;

    std::string m_prefix;
    std::uint32_t m_firstKey;
    std::size_t m_valueSize;
    // The parts of requests and replies that are always the same.
    std::string m_setHead;
    std::string m_getHead;
    std::string m_counterKey;
    std::string m_incr;
    std::string m_valueHead;

    std::uint64_t m_random;
    std::uint64_t m_counter = 0;
    // By key; 0 for one that was not set yet.
    std::vector<std::uint32_t> m_versions;
};

}  // namespace kv_load
