// What tests do with endpoints: clients of servers that may refuse them.
#pragma once

#include <gtest/gtest.h>
#include <nx/net/CNxEndpoint.h>
#include <nx/net/CNxSocket.h>
#include <sys/time.h>

#include <string>

inline CNxEndpoint Parse(const std::string& text) {
    CNxEndpoint endpoint;
    EXPECT_EQ(endpoint.Set(text.c_str()), NX_OK) << text;
    return endpoint;
}

// Without a descriptor when it is refused.
inline CNxSocketBase Connect(const CNxEndpoint& to) {
    CNxSocketBase client;
    const timeval patience{20, 0};
    if (client.Open(to.GetFamily(), SOCK_STREAM, 0, 0) != 0 ||
        setsockopt(client.GetHandle(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0 ||
        connect(client.GetHandle(), to.GetAddress(), to.GetSize()) != 0) {
        client.Close();
    }
    return client;
}

// Waits for it.
inline bool IsHungUpOn(const CNxSocketBase& client) {
    char byte;
    return recv(client.GetHandle(), &byte, 1, 0) == 0;
}
