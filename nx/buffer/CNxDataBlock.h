// Reference-counted storage of a fixed size: the bytes that message blocks look at.
#pragma once

#include <cstddef>

#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/CNxReferenceControl.h>
#include <nx/foundation/NxResult.h>

// Header and payload are one allocation, freed when the last reference is released:
//
//     | CNxDataBlock | payload: GetSize() bytes, aligned for any type |
//
// The places of blocks of 512 B, 4, 16 and 64 KiB are kept for the next of that size, in each
// thread and between threads, a few MiB in all; those of other sizes go back at once. The size
// never changes. References may be taken and released on any thread; who reads and writes the
// payload is for its users to order.
class alignas(std::max_align_t) CNxDataBlock : public CNxReferenceControlT<CNxMutexThread> {
public:
    // Makes a block of `size` bytes and copies them from `data`; for null the payload is left
    // uninitialised. The caller owns the one reference and gives it back with ReleaseReference()
    // or hands it on with CNxAutoPtr<CNxDataBlock>::Adopt.
    // NX_OK with the block in `out`. NX_ERROR_INVALID_ARG for size 0; NX_ERROR_FAILURE when there
    // is no memory, or the size is more than any object can have; `out` then stays as it was.
    [[nodiscard]] static NxResult CreateInstance(CNxDataBlock*& out, unsigned long size,
                                                 const char* data);

    // A header over an existing area, which it does not own: the area must outlive the block. The
    // count starts at 0. To be made with `new`, since the last ReleaseReference() deletes it.
    CNxDataBlock(unsigned long size, char* data) : m_size(size), m_data(data) {}

    unsigned long GetSize() const { return m_size; }
    char* GetData() const { return m_data; }

    // The class frees without a size: the compiler knows only that of the header, and a sized
    // deallocation with it would be wrong for a block that carries its payload.
    static void* operator new(std::size_t size) { return ::operator new(size); }
    static void operator delete(void* memory) noexcept { ::operator delete(memory); }

protected:
    // Frees header and payload.
    void OnReferenceDestory() override { delete this; }

private:
    unsigned long m_size;
    char* m_data;
};
