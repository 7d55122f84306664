// From what people write to the address that is meant.
#pragma once

#include <nx/net/CNxInetAddr.h>

#include <string>

namespace examples {

// Sets `address` to an IPv4 or IPv6 address in figures or to the one of a host name, the first of
// IPv4 if it has any. Waits for the look-up, so not on the network thread, which must run. Returns
// what is wrong, or "".
[[nodiscard]] std::string LookUpHost(const std::string& host, unsigned short port,
                                     CNxInetAddr& address);

}  // namespace examples
