// Inside the library only: how many connections there are, in all and of each address.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

#include <nx/foundation/CNxAutoPtr.h>
#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/CNxReferenceControl.h>
#include <nx/net/CNxEndpoint.h>
#include <nx/stream/CNxReleasedWithSocket.h>

// Shared by its acceptor and all places that it has given out, so that these may be given back
// after the acceptor is gone. Any thread.
//
// The table of addresses has at most as many entries as there are connections. It is a tree: peers
// that choose their addresses cannot make it slow.
class CPlacesTaken : public CNxReferenceControlT<CNxMutexThread> {
public:
    // A place that is taken until it is destroyed. Null when there are `maxTotal` already, or
    // `maxPerAddress` of that address (0 for no limit), and without memory. IPv6 addresses count by
    // their first 64 bits, which is what one customer has at least; unix peers have no address.
    [[nodiscard]] std::unique_ptr<CNxReleasedWithSocket> Take(const CNxEndpoint& peer,
                                                              size_t maxTotal,
                                                              size_t maxPerAddress);

    size_t GetTotal() const { return m_total.load(std::memory_order_relaxed); }

private:
    class CPlace;

    bool CountOne(std::uint64_t address, size_t maxPerAddress);
    void Return(std::uint64_t address);

    std::atomic<size_t> m_total{0};
    CNxMutexThread m_mutex;
    std::map<std::uint64_t, size_t> m_perAddress NX_GUARDED_BY(m_mutex);
};
