// Inside the library only: what a connection has still to send.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string_view>

#include <nx/buffer/CNxMessageChain.h>
#include <nx/net/CNxSocket.h>

// Bytes and ranges of files, in order. Belongs to one thread at a time. What needs memory and finds
// none throws std::bad_alloc with nothing changed, except where it returns -1 for that.
class CStreamOutput {
public:
    bool IsEmpty() const { return m_bytes.IsEmpty() && m_files == nullptr; }

    // Bytes in memory: files count nothing.
    size_t GetSize() const { return m_bytes.GetSize() + (m_files ? m_files->size : 0); }

    void Append(std::string_view bytes);
    void Append(CNxMessageChain&& bytes) noexcept;
    void Append(CStreamOutput&& other) noexcept;
    void AppendFile(CNxSocketBase file, std::uint64_t offset, std::uint64_t size);

    void Clear() noexcept;

    // Sends once, at most `most` bytes of a file. The number of bytes, `isFull` when the socket has
    // not taken all that it was offered; or -1 with errno: ENODATA when a file has become shorter,
    // ENOMEM. There is something to send.
    long SendTo(int socket, size_t most, bool& isFull);

    // Takes what comes next off, at most `most` bytes if it is of a file. False with errno as
    // above, and then nothing is taken. There is something to take.
    [[nodiscard]] bool Take(CNxMessageChain& out, size_t most);

private:
    struct CFile {
        CNxSocketBase file;
        std::uint64_t offset;
        std::uint64_t size;      // left; never 0
        CNxMessageChain behind;  // the bytes after it
    };
    struct CFiles {
        std::list<CFile> list;  // never empty
        size_t size = 0;        // of the bytes behind them
    };

    CNxMessageChain& GetEnd() { return m_files ? m_files->list.back().behind : m_bytes; }
    [[nodiscard]] bool ReadFirst(size_t most);
    void UseFirst(std::uint64_t count);
    long SendBytes(int socket, bool& isFull);
    long SendFirst(int socket, size_t most);

    CNxMessageChain m_bytes;  // those before the first file
    std::unique_ptr<CFiles> m_files;
};
