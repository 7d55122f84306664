// Inside the library only: memory for small objects that one thread makes and another ends, which
// is the slow case of every allocator.
#pragma once

#include <cstddef>

// Each thread keeps the places of objects that it has ended, at most 126 of one size; packs of them
// go from thread to thread by way of a shelf with 504 at most. Every place is one of ::operator
// new's: it may be freed by ::operator delete, and one that came from there may be left here. Any
// thread, at any time.
class CRecycledPlaces {
public:
    // A place that was left by an object of `size` bytes. Null when there is none, and always above
    // 128 bytes and for what is no multiple of the size of a pointer: then it comes from ::operator
    // new.
    static void* Take(std::size_t size);

    // Takes back the place of an object of that size; null does nothing.
    static void Leave(void* place, std::size_t size);
};
