// A read and a write cursor over memory of the caller.
#pragma once

#include <nx/foundation/NxResult.h>

// BEWARE: Read DOES NOT STOP AT THE END OF THE MEMORY, nor at what has been written. As long as its
// position is below the end it copies as many bytes as it is asked for, also those after the end.
// The caller bounds `count`, or uses CNxMessageBlock over the same memory. Write stops.
//
// Both cursors start at the first byte. The memory is never freed and must outlive the object; a
// copy has cursors of its own over the same memory. One thread at a time.
class CNxDataBlockNoMalloc {
public:
    // `size` in bytes. `data` must be writable if Write is to be called. With null, reading and
    // writing return NX_ERROR_NOT_INITIALIZED.
    CNxDataBlockNoMalloc(const char* data, unsigned long size);

    // Copies `count` bytes to `dst` and moves the read position past them; see the warning above.
    // The amount goes to `outRead`, which may be null and is left alone by the two refusals.
    // NX_OK; NX_ERROR_PARTIAL_DATA when the position is at the end (nothing is copied) or beyond it
    // by less than `count` (as many bytes are copied as it is beyond).
    // NX_ERROR_INVALID_ARG for a null `dst`, else NX_ERROR_NOT_INITIALIZED without memory.
    [[nodiscard]] NxResult Read(void* dst, unsigned long count, unsigned long* outRead);

    // Copies as much of `src` as there is room for before the end. The amount goes to `outWritten`,
    // which may be null and is left alone by the two refusals.
    // NX_OK; NX_ERROR_PARTIAL_DATA when it was less than `count`. NX_ERROR_INVALID_ARG for a null
    // `src`, else NX_ERROR_NOT_INITIALIZED without memory.
    [[nodiscard]] NxResult Write(const void* src, unsigned long count, unsigned long* outWritten);

    const char* GetBegin() const { return m_begin; }
    const char* GetEnd() const { return m_end; }
    char* GetReadPtr() const { return m_readPtr; }
    char* GetWritePtr() const { return m_writePtr; }

private:
    const char* m_begin;
    const char* m_end;
    char* m_readPtr;
    char* m_writePtr;
};
