// What goes over the wire, "REQ number bytes" and "ACK number", and how.
#pragma once

#include <nx/net/CNxInetAddr.h>
#include <nx/net/CNxSocket.h>
#include <nx/reactor/INxReactor.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace reliable_sender {

std::string MakeRequest(unsigned int number, std::size_t size);
std::string MakeAnswer(unsigned int number);

// Reads the number out of a datagram. False, with `number` as it was, when it is something else. A
// line end after an answer is let pass, for people who type it.
bool ReadRequest(std::string_view datagram, unsigned int& number);
bool ReadAnswer(std::string_view datagram, unsigned int& number);

// Takes the next datagram out of the socket into the reactor's buffer. Returns its bytes, or -1
// when there is none; `from` has the type of the socket and becomes the sender.
long ReceiveFrom(const CNxSocketUdp& socket, INxReactor& reactor, CNxInetAddr& from);

// A datagram that the system does not take is lost, like others on the way.
void SendTo(const CNxSocketUdp& socket, const char* data, std::size_t size, const CNxInetAddr& to);

}  // namespace reliable_sender
