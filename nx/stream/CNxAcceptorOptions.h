// How an acceptor listens, and how many connections it takes.
#pragma once

#include <cstddef>

struct CNxAcceptorOptions {
    // Connections that may wait to be accepted (listen(2)), up to what the system allows
    // (net.core.somaxconn).
    int backlog = 4096;

    // Several sockets, one on each reactor, share the address (SO_REUSEPORT, socket(7)). Not for
    // unix sockets, as the next one: there it does nothing.
    bool reusePort = false;

    // Connections are accepted when their first data has come, or after so many seconds
    // (TCP_DEFER_ACCEPT, tcp(7)); 0: at once.
    unsigned deferSeconds = 0;

    // 0 for no limit. What is beyond is accepted and closed at once, and counted as refused:
    // connections at a time, of one address (IPv4, or the first 64 bits of IPv6) at a time, and new
    // ones in a second, which begins with the first one after the last second. Peers on unix
    // sockets have no address that could be counted.
    size_t maxConnections = 0;
    size_t maxPerAddress = 0;
    size_t maxPerSecond = 0;

    // Permissions of the path of a unix socket, whatever the umask; abstract names have none.
    unsigned unixMode = 0660;
};
