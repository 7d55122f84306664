// Inside the library only: datagrams that wait to be sent, and how they are sent many at a time.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <string_view>
#include <vector>

#include <nx/net/CNxEndpoint.h>

class CNxMessageChain;

// First in, first out. The bytes lie one datagram behind the other, so that a run of equal ones to
// one peer is one piece for the system, which cuts it up itself (UDP_SEGMENT, udp(7)). What was
// sent leaves its memory to what comes. Belongs to whoever locks it; what throws std::bad_alloc has
// changed nothing.
class CDatagramQueue {
public:
    // `to` of no family: the peer that the socket is connected to.
    void Put(const CNxEndpoint& to, std::string_view bytes);
    void Put(const CNxEndpoint& to, const CNxMessageChain& chain);
    void Put(const CNxEndpoint& to, const iovec* pieces, size_t count);

    // Becomes what the other is, which becomes empty; this one is, before. Copies nothing.
    void TakeAll(CDatagramQueue& other);

    void Clear();

    bool IsEmpty() const { return m_first == m_waiting.size(); }
    size_t GetCount() const { return m_waiting.size() - m_first; }

    // Bytes that wait, and c_costOfOne for each datagram, so that empty ones count too.
    size_t GetCost() const { return m_bytes.size() - m_firstByte + GetCount() * c_costOfOne; }
    static constexpr size_t c_costOfOne = 128;

    // Whether the system cuts up runs for this socket, and whether it is to.
    static bool CanSegment(int socket);
    void UseSegments(bool isWanted) { m_maxSegment = isWanted ? c_maxRunBytes : 0; }

    // Sends what there is, as far as the socket takes it; what it refuses for good is dropped.
    // BLOCKED: it has no room. SHORT: the system lacks memory for the moment.
    enum class EResult { EMPTY, BLOCKED, SHORT };
    struct CTally {
        size_t sent = 0;
        size_t dropped = 0;
    };
    EResult SendTo(int socket, CTally& tally);

    // How many go out in one system call, runs counting as one.
    static constexpr size_t c_batch = 64;

private:
    struct CWaiting {
        CNxEndpoint to;
        size_t size;
    };
    class CBatch;

    template <class AppendBytes>
    void PutWith(const CNxEndpoint& to, const AppendBytes& appendBytes);
    size_t CountRun(size_t first) const;
    void FillBatch(CBatch& batch);
    void OnRefused(int error, size_t run, CTally& tally);
    void Drop(size_t count);

    // What fits a datagram of either family.
    static constexpr size_t c_maxRunBytes = 65535 - 40 - 8;

    // From here on they wait; those before are gone.
    size_t m_first = 0;
    size_t m_firstByte = 0;
    std::vector<CWaiting> m_waiting;
    std::vector<char> m_bytes;

    // The longest datagram of which runs are left to the system; 0 for none.
    size_t m_maxSegment = 0;
    // The first one met an error that was of an earlier one's making, and is tried again.
    bool m_isRetried = false;
};
