// Inside the library only: datagrams that were received in one system call.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include <nx/net/CNxEndpoint.h>

// Holds them until the next call. One thread at a time.
class CReceivedDatagrams {
public:
    // How many at most.
    static constexpr size_t c_most = 16;

    // Of each so many bytes are kept. Throws std::bad_alloc.
    explicit CReceivedDatagrams(size_t maxReceived);

    // As recvmmsg(2), without waiting.
    [[nodiscard]] int Receive(int socket);

    // Of no family when a unix sender has no name.
    CNxEndpoint GetSender(size_t index) const;
    std::string_view GetBytes(size_t index) const;
    bool IsTruncated(size_t index) const;

    // How many the system had dropped until then, modulo 2^32; it says so once there are some.
    [[nodiscard]] bool FindDropped(size_t index, std::uint32_t& dropped);

private:
    struct Control {
        alignas(cmsghdr) char bytes[CMSG_SPACE(sizeof(std::uint32_t))];
    };

    const size_t m_maxReceived;
    const std::unique_ptr<char[]> m_bytes;
    mmsghdr m_messages[c_most];
    iovec m_pieces[c_most];
    sockaddr_storage m_names[c_most];
    Control m_controls[c_most];
};
