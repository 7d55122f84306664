// Addresses as people write them.
#pragma once

#include <nx/net/CNxInetAddr.h>
#include <sys/socket.h>

#include <string>

namespace examples {

// "1.2.3.4:80" or "[::1]:80".
inline std::string ToText(const CNxInetAddr& address) {
    char host[64];
    const std::string text = address.GetHostAddr(host, sizeof(host));
    const bool isV6 = address.GetType() == AF_INET6;
    return (isV6 ? "[" + text + "]" : text) + ":" + std::to_string(address.GetPort());
}

}  // namespace examples
