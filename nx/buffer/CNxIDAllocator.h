// A pool of identifiers from a range, for sessions, requests and the like.
#pragma once

#include <list>
#include <vector>

#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/NxResult.h>

// Hands out identifiers one at a time; 0 is never one and means none. Fresh identifiers come in
// ascending order, but a freed one is handed out again first, the last freed before the others.
// Any thread may call any operation. Takes memory only for identifiers that were freed, so a range
// of billions costs nothing until then.
class CNxIDAllocator {
public:
    CNxIDAllocator() = default;

    CNxIDAllocator(const CNxIDAllocator&) = delete;
    CNxIDAllocator& operator=(const CNxIDAllocator&) = delete;

    // Puts every identifier of [min, max] after those that are free. A second Init ADDS its range;
    // from then on FreeID takes identifiers of the new range only.
    // NX_OK; NX_ERROR_FAILURE, with nothing changed, when min or max is 0, min is not below max, or
    // max is 4294967295.
    [[nodiscard]] NxResult Init(unsigned int min, unsigned int max);

    // The next identifier, 0 when none is left.
    [[nodiscard]] unsigned int AllocID();

    // DOES NOT NOTICE that an identifier is free already: it will then be handed out twice.
    // Returns 1, or 0, with nothing done, for 0 and for what is outside the range of the last Init.
    int FreeID(unsigned int id);

    // How many AllocID calls would succeed.
    unsigned long GetAvaiableIDCount() const;

private:
    struct Range {
        unsigned int m_first;
        unsigned int m_last;
    };

    // Together the free list: the freed identifiers from the back, then the ranges.
    mutable CNxMutexThread m_mutex;
    std::vector<unsigned int> m_freed NX_GUARDED_BY(m_mutex);
    std::list<Range> m_fresh NX_GUARDED_BY(m_mutex);
    unsigned long m_available NX_GUARDED_BY(m_mutex) = 0;
    unsigned int m_min NX_GUARDED_BY(m_mutex) = 0;
    unsigned int m_max NX_GUARDED_BY(m_mutex) = 0;
};
