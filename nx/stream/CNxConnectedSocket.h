// A socket that is connected, as it goes from whoever accepted or connected it to its connection.
#pragma once

#include <memory>

#include <nx/net/CNxSocket.h>
#include <nx/stream/CNxReleasedWithSocket.h>

// With what has to live as long as the socket, such as its count among the connections that an
// acceptor may have; null for none.
struct CNxConnectedSocket {
    CNxSocketBase socket;
    std::unique_ptr<CNxReleasedWithSocket> attached;
};
