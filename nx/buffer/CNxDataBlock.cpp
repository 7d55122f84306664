#include <nx/buffer/CNxDataBlock.h>

#include <cassert>
#include <cstdint>
#include <cstring>
#include <new>

#include <nx/foundation/CRecycledPlaces.h>

// The payload starts right after the header, so the header's size has to keep it aligned.
static_assert(sizeof(CNxDataBlock) % alignof(std::max_align_t) == 0);
static_assert(alignof(CNxDataBlock) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
static_assert(sizeof(CNxDataBlock) == CRecycledPlaces::c_header);

namespace {

// Beyond it pointers into the payload could not be subtracted; also keeps the sum from wrapping.
constexpr unsigned long c_maxSize = PTRDIFF_MAX - sizeof(CNxDataBlock);

// With its payload behind it.
class CBlockWithPayload final : public CNxDataBlock {
public:
    using CNxDataBlock::CNxDataBlock;

protected:
    void OnReferenceDestory() override {
        const unsigned long size = sizeof(*this) + GetSize();
        this->~CBlockWithPayload();
        CRecycledPlaces::Leave(this, size);
    }
};
static_assert(sizeof(CBlockWithPayload) == sizeof(CNxDataBlock));

}  // namespace

NxResult CNxDataBlock::CreateInstance(CNxDataBlock*& out, unsigned long size, const char* data) {
    if (size == 0) {
        return NX_ERROR_INVALID_ARG;
    }
    if (size > c_maxSize) {
        return NX_ERROR_FAILURE;
    }
    void* memory = CRecycledPlaces::Take(sizeof(CNxDataBlock) + size);
    if (memory == nullptr) {
        memory = ::operator new(sizeof(CNxDataBlock) + size, std::nothrow);
    }
    if (memory == nullptr) {
        return NX_ERROR_FAILURE;
    }
    char* payload = static_cast<char*>(memory) + sizeof(CNxDataBlock);
    if (data != nullptr) {
        std::memcpy(payload, data, size);
    }
    out = ::new (memory) CBlockWithPayload(size, payload);
    assert(reinterpret_cast<char*>(out) == memory && out->GetData() == payload);
    out->AddReference();
    return NX_OK;
}
