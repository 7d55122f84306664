// Inside the library only: in which order the addresses of a name are tried.
#pragma once

#include <vector>

#include <nx/net/CNxEndpoint.h>
#include <nx/net/CNxInetAddr.h>

// The families take turns, the first address stays the first (RFC 8305 section 4). At least one
// address. Throws std::bad_alloc.
std::vector<CNxEndpoint> Interleave(const std::vector<CNxInetAddr>& addresses, unsigned short port);
