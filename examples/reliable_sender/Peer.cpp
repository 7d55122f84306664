#include <reliable_sender/Datagrams.h>
#include <reliable_sender/Peer.h>

#include <string>
#include <string_view>

namespace reliable_sender {

bool Peer::Open(const CNxInetAddr& address) {
    m_address = address;
    return m_socket.Open(address) == 0 && m_socket.GetLocalAddr(m_address) == 0 &&
           m_reactor.RegisterHandler(this, NX_MASK_READ) == NX_OK;
}

void Peer::Close() {
    if (GetHandle() != -1) {
        m_reactor.RemoveHandler(this, NX_MASK_ALL_EVENTS);
        m_socket.Close();
    }
}

int Peer::OnInput(int /*fd*/) {
    CNxInetAddr sender(m_address.GetType());
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

}  // namespace reliable_sender
