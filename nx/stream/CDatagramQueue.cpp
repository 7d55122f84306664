#include <netinet/udp.h>
#include <nx/buffer/CNxMessageChain.h>
#include <nx/stream/CDatagramQueue.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>

namespace {

// What every kernel cuts up at once (UDP_MAX_SEGMENTS, linux/udp.h).
constexpr size_t c_maxRun = 64;

// Of those that are gone so many stay in front of the others.
constexpr size_t c_compactFrom = 1024;

}  // namespace

// What one system call is given.
class CDatagramQueue::CBatch {
public:
    void Add(CWaiting& first, char* bytes, size_t size, size_t run) {
        assert(m_count < c_batch && run > 0);
        iovec& piece = m_pieces[m_count];
        piece = {bytes, size};
        msghdr& header = m_messages[m_count].msg_hdr;
        header = {};
        header.msg_iov = &piece;
        header.msg_iovlen = 1;
        if (first.to.GetFamily() != AF_UNSPEC) {
            header.msg_name = const_cast<sockaddr*>(first.to.GetAddress());
            header.msg_namelen = first.to.GetSize();
        }
        if (run > 1) {
            SetSegment(header, static_cast<std::uint16_t>(first.size));
        }
        m_runs[m_count++] = run;
    }

    bool IsFull() const { return m_count == c_batch; }

    // As sendmmsg(2).
    int Send(int socket) {
        const auto count = static_cast<unsigned>(m_count);
        return sendmmsg(socket, m_messages, count, MSG_NOSIGNAL | MSG_DONTWAIT);
    }

    // In the first so many messages.
    size_t CountDatagrams(int messages) const {
        size_t sum = 0;
        for (int i = 0; i < messages; ++i) {
            sum += m_runs[i];
        }
        return sum;
    }

private:
    void SetSegment(msghdr& header, std::uint16_t size) {
        Control& control = m_controls[m_count];
        header.msg_control = control.bytes;
        header.msg_controllen = sizeof(control.bytes);
        cmsghdr* const message = CMSG_FIRSTHDR(&header);
        message->cmsg_level = SOL_UDP;
        message->cmsg_type = UDP_SEGMENT;
        message->cmsg_len = CMSG_LEN(sizeof(size));
        std::memcpy(CMSG_DATA(message), &size, sizeof(size));
    }

    struct Control {
        alignas(cmsghdr) char bytes[CMSG_SPACE(sizeof(std::uint16_t))];
    };

    // Filled as far as it counts.
    size_t m_count = 0;
    mmsghdr m_messages[c_batch];
    iovec m_pieces[c_batch];
    Control m_controls[c_batch];
    size_t m_runs[c_batch];
};

template <class AppendBytes>
void CDatagramQueue::PutWith(const CNxEndpoint& to, const AppendBytes& appendBytes) {
    const size_t oldSize = m_bytes.size();
    m_waiting.push_back({to, 0});
    try {
        appendBytes();
    } catch (const std::bad_alloc&) {
        m_waiting.pop_back();
        m_bytes.resize(oldSize);
        throw;
    }
    m_waiting.back().size = m_bytes.size() - oldSize;
}

void CDatagramQueue::Put(const CNxEndpoint& to, std::string_view bytes) {
    PutWith(to, [&] { m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end()); });
}

void CDatagramQueue::Put(const CNxEndpoint& to, const CNxMessageChain& chain) {
    PutWith(to, [&] {
        const size_t oldSize = m_bytes.size();
        m_bytes.resize(oldSize + chain.GetSize());
        chain.Copy(m_bytes.data() + oldSize, chain.GetSize());
    });
}

void CDatagramQueue::Put(const CNxEndpoint& to, const iovec* pieces, size_t count) {
    PutWith(to, [&] {
        for (const iovec* piece = pieces; piece != pieces + count; ++piece) {
            const char* const bytes = static_cast<const char*>(piece->iov_base);
            m_bytes.insert(m_bytes.end(), bytes, bytes + piece->iov_len);
        }
    });
}

void CDatagramQueue::TakeAll(CDatagramQueue& other) {
    assert(IsEmpty() && m_first == 0 && other.m_first == 0);
    m_waiting.swap(other.m_waiting);
    m_bytes.swap(other.m_bytes);
}

void CDatagramQueue::Clear() {
    m_waiting.clear();
    m_bytes.clear();
    m_first = 0;
    m_firstByte = 0;
}

bool CDatagramQueue::CanSegment(int socket) {
    const int none = 0;
    return setsockopt(socket, SOL_UDP, UDP_SEGMENT, &none, sizeof(none)) == 0;
}

CDatagramQueue::EResult CDatagramQueue::SendTo(int socket, CTally& tally) {
    while (!IsEmpty()) {
        CBatch batch;
        FillBatch(batch);
        const int sent = batch.Send(socket);
        if (sent > 0) {
            const size_t count = batch.CountDatagrams(sent);
            tally.sent += count;
            Drop(count);
            continue;
        }
        const int error = errno;
        if (error == EAGAIN) {
            return EResult::BLOCKED;
        }
        if (error == ENOBUFS || error == ENOMEM) {
            return EResult::SHORT;
        }
        if (error != EINTR) {
            OnRefused(error, batch.CountDatagrams(1), tally);
        }
    }
    return EResult::EMPTY;
}

void CDatagramQueue::FillBatch(CBatch& batch) {
    char* at = m_bytes.data() + m_firstByte;
    for (size_t i = m_first; i < m_waiting.size() && !batch.IsFull();) {
        const size_t run = CountRun(i);
        const size_t size = (run - 1) * m_waiting[i].size + m_waiting[i + run - 1].size;
        batch.Add(m_waiting[i], at, size, run);
        i += run;
        at += size;
    }
}

// Of equal size and to one peer; the last may be shorter, but not empty.
size_t CDatagramQueue::CountRun(size_t first) const {
    const size_t size = m_waiting[first].size;
    if (size == 0 || size > m_maxSegment) {
        return 1;
    }
    const size_t most = std::min(c_maxRunBytes / size, c_maxRun);
    size_t run = 1;
    for (; run < most && first + run < m_waiting.size(); ++run) {
        const CWaiting& next = m_waiting[first + run];
        if (next.size == 0 || next.size > size || next.to != m_waiting[first].to) {
            break;
        }
        if (next.size < size) {
            return run + 1;
        }
    }
    return run;
}

// The first message, of `run` datagrams, was not taken.
void CDatagramQueue::OnRefused(int error, size_t run, CTally& tally) {
    const bool isOfSegments = error == EINVAL || error == EMSGSIZE || error == EIO;
    if (run > 1 && isOfSegments) {
        // Longer than the way to the peer carries, or a device without checksums (EIO).
        m_maxSegment = error == EIO ? 0 : m_waiting[m_first].size - 1;
    } else if (!m_isRetried) {
        // May be what an ICMP message said of an earlier one; who is told of it is told once.
        m_isRetried = true;
    } else {
        ++tally.dropped;
        Drop(1);
    }
}

void CDatagramQueue::Drop(size_t count) {
    m_isRetried = false;
    for (const size_t end = m_first + count; m_first < end; ++m_first) {
        assert(m_first < m_waiting.size());
        m_firstByte += m_waiting[m_first].size;
    }
    assert(m_firstByte <= m_bytes.size());
    if (IsEmpty()) {
        Clear();
    } else if (m_first >= c_compactFrom && m_first >= m_waiting.size() / 2) {
        m_waiting.erase(m_waiting.begin(), m_waiting.begin() + static_cast<long>(m_first));
        m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<long>(m_firstByte));
        m_first = 0;
        m_firstByte = 0;
    }
}
