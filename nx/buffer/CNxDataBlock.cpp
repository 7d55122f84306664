#include <nx/buffer/CNxDataBlock.h>

#include <cassert>
#include <cstdint>
#include <cstring>
#include <new>

// The payload starts right after the header, so the header's size has to keep it aligned.
static_assert(sizeof(CNxDataBlock) % alignof(std::max_align_t) == 0);
static_assert(alignof(CNxDataBlock) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);

namespace {

// Beyond it pointers into the payload could not be subtracted; also keeps the sum from wrapping.
constexpr unsigned long c_maxSize = PTRDIFF_MAX - sizeof(CNxDataBlock);

}  // namespace

NxResult CNxDataBlock::CreateInstance(CNxDataBlock*& out, unsigned long size, const char* data) {
    if (size == 0) {
        return NX_ERROR_INVALID_ARG;
    }
    if (size > c_maxSize) {
        return NX_ERROR_FAILURE;
    }
    void* memory = ::operator new(sizeof(CNxDataBlock) + size, std::nothrow);
    if (memory == nullptr) {
        return NX_ERROR_FAILURE;
    }
    char* payload = static_cast<char*>(memory) + sizeof(CNxDataBlock);
    if (data != nullptr) {
        std::memcpy(payload, data, size);
    }
    out = ::new (memory) CNxDataBlock(size, payload);
    assert(reinterpret_cast<char*>(out) == memory && out->m_data == payload);
    out->AddReference();
    return NX_OK;
}
