// What a datagram socket is to be like, and how much may wait in it.
#pragma once

#include <cstddef>
#include <string>

#include <nx/net/CNxEndpoint.h>

struct CNxDatagramOptions {
    // Connected to it (connect(2)): sends there what is sent to an endpoint of no family, and
    // receives from nobody else. Of no family: not connected.
    CNxEndpoint peer;

    // Bytes that are received of one datagram, 1 to 65535; the rest of a longer one is cut off.
    size_t maxReceived = 65535;

    // Datagrams that are received in one turn of the loop before others have theirs; at least 1.
    size_t receivedPerTurn = 256;

    // Bytes that wait for the socket to take them, with 128 more for each datagram: beyond them
    // datagrams are dropped and counted. What other threads have sent and the loop has not seen yet
    // is bounded by itself.
    size_t maxUnsent = 1UL << 20;

    // Permissions of the path of a unix socket.
    unsigned unixMode = 0660;

    // Runs of datagrams of one size to one peer are cut up by the system, where it can
    // (UDP_SEGMENT, udp(7)); the peers cannot tell.
    bool segment = true;

    // socket(7); 0 for what the system gives. Up to its limits: net.core.rmem_max, wmem_max.
    int receiveBuffer = 0;
    int sendBuffer = 0;

    // Several sockets share the port: each gets a share of the datagrams (SO_REUSEPORT), or all
    // that come for a group (SO_REUSEADDR).
    bool reusePort = false;
    bool reuseAddress = false;

    bool broadcast = false;

    // Hops, up to 255 (ip(7), ipv6(7)); 0 for what the system gives, which is 1 for groups.
    int ttl = 0;
    int multicastTtl = 0;
    // Whether members on this machine get what is sent to a group.
    bool multicastLoop = true;
    // The name of the interface for what is sent to groups; "" leaves it to the system.
    std::string multicastInterface;
};
