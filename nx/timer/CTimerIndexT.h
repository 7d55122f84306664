// Inside the library only: how a timer queue finds what it keeps for a handler.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <vector>

class INxTimerHandler;

// A table of fixed capacity in one array, of which at least a quarter is free: a handler lies at
// the place that its address names, or behind that with no free place between. Nothing is taken
// out: a handler that has had a timer is likely to get one again. When the table is full the queue
// makes another, with those that have one.
template <class Value>
class CTimerIndexT {
public:
    struct CPlace {
        const INxTimerHandler* m_handler = nullptr;
        Value m_value{};
    };

    // For as many handlers at least. Throws std::bad_alloc.
    explicit CTimerIndexT(size_t fewest) : m_places(CountPlaces(fewest)) {
        for (size_t count = m_places.size(); count > 1; count /= 2) {
            --m_shift;
        }
    }

    size_t GetCapacity() const { return m_places.size() / 4 * 3; }
    bool IsFull() const { return m_size == GetCapacity(); }

    // The place of the handler or, with a null in it, the one that it would get.
    CPlace& Find(const INxTimerHandler* handler) {
        size_t at = GetHome(handler);
        while (m_places[at].m_handler != handler && m_places[at].m_handler != nullptr) {
            at = (at + 1) & (m_places.size() - 1);
        }
        return m_places[at];
    }

    // Fills a place that Find returned with a null in it.
    void Insert(CPlace& place, const INxTimerHandler* handler, const Value& value) {
        assert(handler != nullptr && place.m_handler == nullptr && !IsFull());
        place = {handler, value};
        ++m_size;
    }

    const std::vector<CPlace>& GetPlaces() const { return m_places; }

private:
    static size_t CountPlaces(size_t fewest) {
        size_t count = 4;
        while (count / 4 * 3 < fewest) {
            count *= 2;
        }
        return count;
    }

    // Multiplied by the golden ratio the addresses of neighbours lie far apart.
    size_t GetHome(const INxTimerHandler* handler) const {
        return reinterpret_cast<uintptr_t>(handler) * 0x9E3779B97F4A7C15 >> m_shift;
    }

    std::vector<CPlace> m_places;  // a power of two
    unsigned m_shift = 64;
    size_t m_size = 0;
};
