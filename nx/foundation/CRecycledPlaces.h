// Inside the library only: memory for objects that one thread makes and another ends, which is the
// slow case of every allocator.
#pragma once

#include <cstddef>

// Each thread keeps the places of objects that it has ended; packs of them go from thread to thread
// by way of a shelf. Every place is one of ::operator new's: it may be freed by ::operator delete,
// and one that came from there may be left here. Any thread, at any time.
//
//     size                                          in each thread      on the shelf
//     up to 128 B, multiples of a pointer's size    at most 126 each    at most 504 each
//     512 B and a header                            126, 67 KiB         504, 268 KiB
//     4 KiB                                          64, 258 KiB        256, 1 MiB
//     16 KiB                                         16, 257 KiB         64, 1 MiB
//     64 KiB                                          4, 256 KiB         16, 1 MiB
class CRecycledPlaces {
public:
    // What the large places have beside 512 B and so on.
    static constexpr std::size_t c_header = 32;

    // A place that was left by an object of `size` bytes. Null when there is none, and always for a
    // size that is not recycled: then it comes from ::operator new.
    static void* Take(std::size_t size);

    // Takes back the place of an object of that size; null does nothing.
    static void Leave(void* place, std::size_t size);
};
