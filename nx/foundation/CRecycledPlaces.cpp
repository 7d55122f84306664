#include <nx/foundation/CRecycledPlaces.h>

#include <atomic>
#include <cassert>
#include <iterator>
#include <new>
#include <utility>

// The thread that makes an event is seldom the one that ends it, which is the slow case of every
// allocator. So each thread keeps the places of those that it ended, packs of them go from thread
// to thread by way of a shelf, and every place is one of ::operator new's and may go back at any
// time. Packs that have become empty go back by way of a shelf as well, so that what flows from one
// thread to another allocates nothing.
namespace {

constexpr size_t c_granularity = 8;
constexpr size_t c_largestSmall = 128;
constexpr size_t c_smallSizes = c_largestSmall / c_granularity;
constexpr size_t c_packsOnShelf = 8;
constexpr size_t c_emptyPacksOnShelf = 32;
constexpr size_t c_roomInPack = 63;

constexpr struct {
    size_t size;
    size_t placesInPack;
} c_large[] = {{512 + CRecycledPlaces::c_header, c_roomInPack},
               {4096 + CRecycledPlaces::c_header, 32},
               {16384 + CRecycledPlaces::c_header, 8},
               {65536 + CRecycledPlaces::c_header, 2}};
constexpr size_t c_sizes = c_smallSizes + std::size(c_large);

#if defined(__SANITIZE_ADDRESS__)
#define NX_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define NX_ADDRESS_SANITIZER
#endif
#endif

#if defined(NX_ADDRESS_SANITIZER)
// It is to find who uses an object that is gone.
constexpr bool c_areRecycled = false;
#else
constexpr bool c_areRecycled = true;
#endif

// Places of one size.
class CPack {
public:
    bool IsEmpty() const { return m_count == 0; }
    size_t GetCount() const { return m_count; }
    void* Take() {
        assert(!IsEmpty());
        return m_places[--m_count];
    }
    void Leave(void* place) {
        assert(m_count < c_roomInPack);
        m_places[m_count++] = place;
    }

    // Null gives nothing to do.
    static void Free(CPack* pack) {
        while (pack != nullptr && !pack->IsEmpty()) {
            ::operator delete(pack->Take());
        }
        delete pack;
    }

private:
    size_t m_count = 0;
    void* m_places[c_roomInPack];
};

// Packs on their way between threads: full ones of one size, or empty ones. Nobody waits for it,
// nor does a forked child find it locked: a pack is taken or put as a whole. Those that lie there
// at exit stay, for threads that still run then.
template <size_t Slots>
class alignas(64) CShelf {
public:
    // Null without one.
    CPack* Take() {
        for (std::atomic<CPack*>& slot : m_slots) {
            if (slot.load(std::memory_order_relaxed) != nullptr) {
                CPack* const pack = slot.exchange(nullptr, std::memory_order_acquire);
                if (pack != nullptr) {
                    return pack;
                }
            }
        }
        return nullptr;
    }

    // Without room it is freed.
    void Put(CPack* pack) {
        for (std::atomic<CPack*>& slot : m_slots) {
            CPack* none = nullptr;
            if (slot.load(std::memory_order_relaxed) == nullptr &&
                slot.compare_exchange_strong(none, pack, std::memory_order_release)) {
                return;
            }
        }
        CPack::Free(pack);
    }

private:
    std::atomic<CPack*> m_slots[Slots];
};
using CFullPacks = CShelf<c_packsOnShelf>;
CFullPacks s_shelves[c_sizes];
CShelf<c_emptyPacksOnShelf> s_empty;

// What a thread has of one size: a second pack, full or empty, so that one at the edge of a pack
// does not go to the shelf each time.
struct CStock {
    CPack* m_open;
    CPack* m_other;
};

// No constructor and no destructor, so that the way to it is short.
struct CThreadStock {
    CStock m_stocks[c_sizes];
    enum { UNUSED, IN_USE, OVER } m_state;
};
thread_local CThreadStock t_stock;

// Frees the thread's places at its end; what is left still later in it is freed at once.
class CEndOfThread {
public:
    ~CEndOfThread() {
        t_stock.m_state = CThreadStock::OVER;
        for (CStock& stock : t_stock.m_stocks) {
            CPack::Free(std::exchange(stock.m_open, nullptr));
            CPack::Free(std::exchange(stock.m_other, nullptr));
        }
    }
    // The first use has the thread destroy it.
    void Await() { t_stock.m_state = CThreadStock::IN_USE; }
};
thread_local CEndOfThread t_endOfThread;

// A pack with a place in it, or null.
CPack* FindFilled(CStock& stock, CFullPacks& shelf) {
    if (stock.m_other != nullptr && !stock.m_other->IsEmpty()) {
        std::swap(stock.m_open, stock.m_other);
        return stock.m_open;
    }
    CPack* const filled = t_stock.m_state != CThreadStock::OVER ? shelf.Take() : nullptr;
    if (filled != nullptr) {
        t_endOfThread.Await();
        CPack* const empty = std::exchange(stock.m_other, std::exchange(stock.m_open, filled));
        if (empty != nullptr) {
            s_empty.Put(empty);
        }
    }
    return filled;
}

// A pack with room in it, or null.
CPack* FindRoom(CStock& stock, CFullPacks& shelf) {
    if (stock.m_other != nullptr && stock.m_other->IsEmpty()) {
        std::swap(stock.m_open, stock.m_other);
        return stock.m_open;
    }
    if (t_stock.m_state == CThreadStock::OVER) {
        return nullptr;
    }
    CPack* empty = s_empty.Take();
    if (empty == nullptr) {
        empty = new (std::nothrow) CPack;
    }
    if (empty != nullptr) {
        t_endOfThread.Await();
        CPack* const full = std::exchange(stock.m_other, std::exchange(stock.m_open, empty));
        if (full != nullptr) {
            shelf.Put(full);
        }
    }
    return empty;
}

// Nothing is rounded up: a place that was not made here has what its next object needs as well.
// c_sizes for a size that is not recycled.
size_t GetIndex(size_t size) {
    if (!c_areRecycled || size == 0) {
        return c_sizes;
    }
    if (size <= c_largestSmall) {
        return size % c_granularity == 0 ? size / c_granularity - 1 : c_sizes;
    }
    size_t index = c_smallSizes;
    for (const auto& large : c_large) {
        if (size == large.size) {
            break;
        }
        ++index;
    }
    return index;
}

size_t GetRoom(size_t index) {
    return index < c_smallSizes ? c_roomInPack : c_large[index - c_smallSizes].placesInPack;
}

}  // namespace

void* CRecycledPlaces::Take(size_t size) {
    const size_t index = GetIndex(size);
    if (index < c_sizes) {
        CStock& stock = t_stock.m_stocks[index];
        CPack* pack = stock.m_open;
        if (pack == nullptr || pack->IsEmpty()) {
            pack = FindFilled(stock, s_shelves[index]);
        }
        if (pack != nullptr) {
            return pack->Take();
        }
    }
    return nullptr;
}

void CRecycledPlaces::Leave(void* place, size_t size) {
    CPack* pack = nullptr;
    const size_t index = GetIndex(size);
    if (place != nullptr && index < c_sizes) {
        CStock& stock = t_stock.m_stocks[index];
        pack = stock.m_open;
        if (pack == nullptr || pack->GetCount() == GetRoom(index)) {
            pack = FindRoom(stock, s_shelves[index]);
        }
    }
    if (pack != nullptr) {
        pack->Leave(place);
    } else {
        ::operator delete(place);
    }
}
