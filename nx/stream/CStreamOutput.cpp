#include <nx/foundation/CNoSigPipe.h>
#include <nx/stream/CStreamOutput.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <utility>

namespace {

constexpr size_t c_iovs = 64;

// Up to here a range is read and goes out together with the bytes around it.
constexpr size_t c_smallFile = 16384;

constexpr size_t c_joinedFile = 65536;

constexpr int c_flags = MSG_NOSIGNAL | MSG_DONTWAIT;

}  // namespace

void CStreamOutput::Append(std::string_view bytes) {
    GetEnd().Append(bytes);
    if (m_files) {
        m_files->size += bytes.size();
    }
}

void CStreamOutput::Append(CNxMessageChain&& bytes) noexcept {
    if (m_files) {
        m_files->size += bytes.GetSize();
    }
    GetEnd().Append(std::move(bytes));
}

void CStreamOutput::Append(CStreamOutput&& other) noexcept {
    Append(std::move(other.m_bytes));
    if (!m_files) {
        m_files = std::move(other.m_files);
    } else if (other.m_files) {
        m_files->list.splice(m_files->list.end(), other.m_files->list);
        m_files->size += other.m_files->size;
        other.m_files.reset();
    }
}

void CStreamOutput::AppendFile(CNxSocketBase file, std::uint64_t offset, std::uint64_t size) {
    if (size == 0) {
        return;
    }
    std::list<CFile> added;
    added.push_back({std::move(file), offset, size, {}});
    if (!m_files) {
        m_files = std::make_unique<CFiles>();
    }
    m_files->list.splice(m_files->list.end(), added);
}

void CStreamOutput::Clear() noexcept {
    m_bytes.Clear();
    m_files.reset();
}

long CStreamOutput::SendTo(int socket, size_t most, bool& isFull) {
    assert(!IsEmpty());
    isFull = false;
    if (m_files && m_files->list.front().size <= c_smallFile && !ReadFirst(c_smallFile)) {
        return -1;
    }
    return m_bytes.IsEmpty() ? SendFirst(socket, most) : SendBytes(socket, isFull);
}

long CStreamOutput::SendBytes(int socket, bool& isFull) {
    iovec pieces[c_iovs];
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = m_bytes.FillIov(pieces, c_iovs);
    // What comes of a file goes into the same segment, unless there is so much of it that one
    // segment more is nothing, and pages that are packed by themselves are cheaper.
    const bool joins = m_files && m_files->list.front().size <= c_joinedFile;
    const int flags = c_flags | (joins ? MSG_MORE : 0);
    const ssize_t sent = message.msg_iovlen == 1
                             ? send(socket, pieces[0].iov_base, pieces[0].iov_len, flags)
                             : sendmsg(socket, &message, flags);
    if (sent < 0) {
        return -1;
    }
    size_t offered = 0;
    for (size_t i = 0; i < message.msg_iovlen; ++i) {
        offered += pieces[i].iov_len;
    }
    isFull = static_cast<size_t>(sent) < offered;
    m_bytes.Consume(static_cast<size_t>(sent));
    return sent;
}

long CStreamOutput::SendFirst(int socket, size_t most) {
    const CFile& first = m_files->list.front();
    auto offset = static_cast<off_t>(first.offset);
    const auto wanted = static_cast<size_t>(std::min<std::uint64_t>(first.size, most));
    // The call has no flag against it.
    const CNoSigPipe noSigPipe;
    const ssize_t sent = sendfile(socket, first.file.GetHandle(), &offset, wanted);
    if (sent > 0) {
        UseFirst(static_cast<std::uint64_t>(sent));
    } else if (sent == 0) {
        errno = ENODATA;
        return -1;
    }
    return sent;
}

// Reads of the first file behind the bytes before it.
bool CStreamOutput::ReadFirst(size_t most) {
    const CFile& first = m_files->list.front();
    const auto wanted = static_cast<size_t>(std::min<std::uint64_t>(first.size, most));
    char* const space = m_bytes.MakeSpace(wanted);
    const ssize_t got =
        pread(first.file.GetHandle(), space, wanted, static_cast<off_t>(first.offset));
    m_bytes.Commit(got > 0 ? static_cast<size_t>(got) : 0);
    if (got <= 0) {
        errno = got == 0 ? ENODATA : errno;
        return false;
    }
    UseFirst(static_cast<std::uint64_t>(got));
    return true;
}

// So many bytes of the first file are done with.
void CStreamOutput::UseFirst(std::uint64_t count) {
    CFile& first = m_files->list.front();
    assert(count <= first.size);
    first.offset += count;
    first.size -= count;
    if (first.size != 0) {
        return;
    }
    m_files->size -= first.behind.GetSize();
    m_bytes.Append(std::move(first.behind));
    m_files->list.pop_front();
    if (m_files->list.empty()) {
        assert(m_files->size == 0);
        m_files.reset();
    }
}

bool CStreamOutput::Take(CNxMessageChain& out, size_t most) {
    assert(!IsEmpty());
    if (m_bytes.IsEmpty() && !ReadFirst(most)) {
        return false;
    }
    out.Append(std::move(m_bytes));
    return true;
}
