#include <nx/foundation/CRecycledPlaces.h>

#include <atomic>
#include <cassert>
#include <new>
#include <utility>

// The thread that makes an event is seldom the one that ends it, which is the slow case of every
// allocator. So each thread keeps the places of those that it ended, packs of them go from thread
// to thread by way of a shelf, and every place is one of ::operator new's and may go back at any
// time.
namespace {

constexpr size_t c_granularity = 8;
constexpr size_t c_largest = 128;
constexpr size_t c_sizes = c_largest / c_granularity;
constexpr size_t c_packsOnShelf = 8;

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
    bool IsFull() const { return m_count == c_room; }
    void* Take() {
        assert(!IsEmpty());
        return m_places[--m_count];
    }
    void Leave(void* place) {
        assert(!IsFull());
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
    static constexpr size_t c_room = 63;

    size_t m_count = 0;
    void* m_places[c_room];
};

// Full packs of one size, on their way between threads. Nobody waits for it, nor does a forked
// child find it locked: a pack is taken or put as a whole. Those that lie there at exit stay, for
// threads that still run then.
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
    std::atomic<CPack*> m_slots[c_packsOnShelf];
};
CShelf s_shelves[c_sizes];

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
CPack* FindFilled(CStock& stock, CShelf& shelf) {
    if (stock.m_other != nullptr && stock.m_other->IsFull()) {
        std::swap(stock.m_open, stock.m_other);
        return stock.m_open;
    }
    CPack* const filled = t_stock.m_state != CThreadStock::OVER ? shelf.Take() : nullptr;
    if (filled != nullptr) {
        t_endOfThread.Await();
        CPack::Free(std::exchange(stock.m_other, std::exchange(stock.m_open, filled)));
    }
    return filled;
}

// A pack with room in it, or null.
CPack* FindRoom(CStock& stock, CShelf& shelf) {
    if (stock.m_other != nullptr && stock.m_other->IsEmpty()) {
        std::swap(stock.m_open, stock.m_other);
        return stock.m_open;
    }
    CPack* const empty = t_stock.m_state != CThreadStock::OVER ? new (std::nothrow) CPack : nullptr;
    if (empty != nullptr) {
        t_endOfThread.Await();
        CPack* const full = std::exchange(stock.m_other, std::exchange(stock.m_open, empty));
        if (full != nullptr) {
            shelf.Put(full);
        }
    }
    return empty;
}

bool IsRecycled(size_t size) {
    return c_areRecycled && size != 0 && size <= c_largest && size % c_granularity == 0;
}

// Nothing is rounded up: a place that was not made here has what its next object needs as well.
size_t GetIndex(size_t size) {
    assert(IsRecycled(size));
    return size / c_granularity - 1;
}

}  // namespace

void* CRecycledPlaces::Take(size_t size) {
    if (IsRecycled(size)) {
        CStock& stock = t_stock.m_stocks[GetIndex(size)];
        CPack* pack = stock.m_open;
        if (pack == nullptr || pack->IsEmpty()) {
            pack = FindFilled(stock, s_shelves[GetIndex(size)]);
        }
        if (pack != nullptr) {
            return pack->Take();
        }
    }
    return nullptr;
}

void CRecycledPlaces::Leave(void* place, size_t size) {
    CPack* pack = nullptr;
    if (place != nullptr && IsRecycled(size)) {
        CStock& stock = t_stock.m_stocks[GetIndex(size)];
        pack = stock.m_open;
        if (pack == nullptr || pack->IsFull()) {
            pack = FindRoom(stock, s_shelves[GetIndex(size)]);
        }
    }
    if (pack != nullptr) {
        pack->Leave(place);
    } else {
        ::operator delete(place);
    }
}
