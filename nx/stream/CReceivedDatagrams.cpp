#include <nx/stream/CReceivedDatagrams.h>

#include <cstring>

CReceivedDatagrams::CReceivedDatagrams(size_t maxReceived)
    : m_maxReceived(maxReceived), m_bytes(new char[c_most * maxReceived]) {}

int CReceivedDatagrams::Receive(int socket) {
    for (size_t i = 0; i < c_most; ++i) {
        m_pieces[i] = {m_bytes.get() + i * m_maxReceived, m_maxReceived};
        msghdr& header = m_messages[i].msg_hdr;
        header = {};
        header.msg_name = &m_names[i];
        header.msg_namelen = sizeof(m_names[i]);
        header.msg_iov = &m_pieces[i];
        header.msg_iovlen = 1;
        header.msg_control = m_controls[i].bytes;
        header.msg_controllen = sizeof(m_controls[i].bytes);
    }
    return recvmmsg(socket, m_messages, c_most, MSG_DONTWAIT, nullptr);
}

CNxEndpoint CReceivedDatagrams::GetSender(size_t index) const {
    CNxEndpoint sender;
    // A unix sender may have no name.
    static_cast<void>(sender.SetAddress(reinterpret_cast<const sockaddr*>(&m_names[index]),
                                        m_messages[index].msg_hdr.msg_namelen));
    return sender;
}

std::string_view CReceivedDatagrams::GetBytes(size_t index) const {
    return {m_bytes.get() + index * m_maxReceived, m_messages[index].msg_len};
}

bool CReceivedDatagrams::IsTruncated(size_t index) const {
    return (m_messages[index].msg_hdr.msg_flags & MSG_TRUNC) != 0;
}

bool CReceivedDatagrams::FindDropped(size_t index, std::uint32_t& dropped) {
    msghdr& header = m_messages[index].msg_hdr;
    for (cmsghdr* at = CMSG_FIRSTHDR(&header); at != nullptr; at = CMSG_NXTHDR(&header, at)) {
        if (at->cmsg_level == SOL_SOCKET && at->cmsg_type == SO_RXQ_OVFL) {
            std::memcpy(&dropped, CMSG_DATA(at), sizeof(dropped));
            return true;
        }
    }
    return false;
}
