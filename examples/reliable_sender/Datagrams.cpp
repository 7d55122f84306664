#include <reliable_sender/Datagrams.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <charconv>
#include <system_error>

namespace reliable_sender {

namespace {

constexpr std::string_view c_request = "REQ ";
constexpr std::string_view c_answer = "ACK ";

// The number must be followed by one of `ends`, or by nothing.
bool Read(std::string_view datagram, std::string_view verb, std::string_view ends,
          unsigned int& number) {
    if (datagram.substr(0, verb.size()) != verb) {
        return false;
    }
    const char* const end = datagram.data() + datagram.size();
    unsigned int value = 0;
    const auto [at, error] = std::from_chars(datagram.data() + verb.size(), end, value);
    if (error != std::errc() || (at != end && ends.find(*at) == std::string_view::npos)) {
        return false;
    }
    number = value;
    return true;
}

}  // namespace

std::string MakeRequest(unsigned int number, std::size_t size) {
    return std::string(c_request) + std::to_string(number) + " " + std::string(size, 'x');
}

std::string MakeAnswer(unsigned int number) {
    return std::string(c_answer) + std::to_string(number);
}

bool ReadRequest(std::string_view datagram, unsigned int& number) {
    return Read(datagram, c_request, " ", number);
}

bool ReadAnswer(std::string_view datagram, unsigned int& number) {
    return Read(datagram, c_answer, "\r\n", number);
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
    static_cast<void>(socket.SendVTo(&piece, 1, to));
}

}  // namespace reliable_sender
