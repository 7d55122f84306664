#include <reliable_sender/Datagrams.h>
#include <reliable_sender/Peer.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <string>
#include <string_view>

namespace reliable_sender {

bool Peer::Open(const CNxInetAddr& address) {
    m_family = address.GetType();
    return m_socket.Open(address) == 0 && m_reactor.RegisterHandler(this, NX_MASK_READ) == NX_OK;
}

void Peer::Close() {
    if (GetHandle() != -1) {
        m_reactor.RemoveHandler(this, NX_MASK_ALL_EVENTS);
        m_socket.Close();
    }
}

CNxInetAddr Peer::GetAddress() const {
    CNxInetAddr address(m_family);
    // Without a socket: no address, port 0.
    static_cast<void>(m_socket.GetLocalAddr(address));
    return address;
}

int Peer::OnInput(int /*fd*/) {
    CNxInetAddr sender(m_family);
    long size = 0;
    while ((size = ReceiveFrom(m_socket, m_reactor, sender)) != -1) {
        const std::string_view datagram(m_reactor.GetBufferPtr(), static_cast<std::size_t>(size));
        unsigned int number = 0;
        if (ReadRequest(datagram, number)) {
            Answer(number, sender);
        }
    }
    return 0;
}

void Peer::Answer(unsigned int number, const CNxInetAddr& sender) {
    ++m_received;
    if (m_random() % 100 >= m_lose) {
        ++m_answered;
        const std::string answer = MakeAnswer(number);
        SendTo(m_socket, answer.data(), answer.size(), sender);
    }
}

long ReceiveFrom(const CNxSocketUdp& socket, INxReactor& reactor, CNxInetAddr& from) {
    socklen_t length = CNxInetAddr::GetInetAddrSize();
    const ssize_t size = recvfrom(socket.GetHandle(), reactor.GetBufferPtr(),
                                  reactor.GetBufferSize(), 0, from.GetPtr(), &length);
    if (size != -1) {
        from.base_set(from.GetType(), static_cast<int>(length));
    }
    return size;
}

void SendTo(const CNxSocketUdp& socket, const char* data, std::size_t size, const CNxInetAddr& to) {
    const iovec piece{const_cast<char*>(data), size};
    // A datagram that is not sent is like one that is lost: it is sent again.
    static_cast<void>(socket.SendVTo(&piece, 1, to));
}

}  // namespace reliable_sender
