#include <nx/buffer/CNxDataBlockNoMalloc.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>

namespace {

NxResult Report(unsigned long done, unsigned long count, unsigned long* out) {
    if (out != nullptr) {
        *out = done;
    }
    return done < count ? NX_ERROR_PARTIAL_DATA : NX_OK;
}

}  // namespace

CNxDataBlockNoMalloc::CNxDataBlockNoMalloc(const char* data, unsigned long size)
    : m_begin(data),
      m_end(data == nullptr ? nullptr : data + size),
      m_readPtr(const_cast<char*>(data)),
      m_writePtr(const_cast<char*>(data)) {}

NxResult CNxDataBlockNoMalloc::Read(void* dst, unsigned long count, unsigned long* outRead) {
    if (dst == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    if (m_readPtr == nullptr) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    // Taken this way round it wraps to a huge number below the end: users rely on getting what they
    // ask for.
    const unsigned long available =
        reinterpret_cast<std::uintptr_t>(m_readPtr) - reinterpret_cast<std::uintptr_t>(m_end);
    const unsigned long n = std::min(count, available);
    std::memcpy(dst, m_readPtr, n);
    m_readPtr += n;
    return Report(n, count, outRead);
}

NxResult CNxDataBlockNoMalloc::Write(const void* src, unsigned long count,
                                     unsigned long* outWritten) {
    if (src == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    if (m_writePtr == nullptr) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    assert(m_begin <= m_writePtr && m_writePtr <= m_end);
    const unsigned long n = std::min(count, static_cast<unsigned long>(m_end - m_writePtr));
    std::memcpy(m_writePtr, src, n);
    m_writePtr += n;
    return Report(n, count, outWritten);
}
