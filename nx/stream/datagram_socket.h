// Inside the library only: what the system is asked for a datagram socket.
#pragma once

#include <cstddef>
#include <string>

#include <nx/foundation/NxResult.h>
#include <nx/net/CNxEndpoint.h>
#include <nx/stream/CNxDatagramOptions.h>

// Bytes of one datagram, at most.
inline constexpr size_t c_maxDatagram = 65535;

bool AreInRange(const CNxDatagramOptions& options);

// 0 for "", which leaves it to the system. False when there is none of that name.
[[nodiscard]] bool FindInterface(const std::string& name, unsigned& index);

// Before it is bound. `interface` is that for what is sent to groups. False with errno.
[[nodiscard]] bool SetUpDatagramSocket(int socket, const CNxEndpoint& endpoint,
                                       const CNxDatagramOptions& options, unsigned interface);

// `option` is MCAST_JOIN_GROUP or MCAST_LEAVE_GROUP (ip(7)). As CNxDatagram::Join; a `socket` of -1
// is closed.
[[nodiscard]] NxResult ChangeMembership(int socket, const CNxEndpoint& group,
                                        const std::string& interface, int option);
