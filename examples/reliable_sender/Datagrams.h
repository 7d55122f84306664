// What goes over the wire: "REQ number bytes" and "ACK number".
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace reliable_sender {

std::string MakeRequest(unsigned int number, std::size_t size);
std::string MakeAnswer(unsigned int number);

// Reads the number out of a datagram. False, with `number` as it was, when it is something else. A
// line end behind an answer is let pass, for people who type it.
bool ReadRequest(std::string_view datagram, unsigned int& number);
bool ReadAnswer(std::string_view datagram, unsigned int& number);

}  // namespace reliable_sender
