#include <nx/foundation/CNxRecycled.h>
#include <nx/foundation/CRecycledPlaces.h>

void* CNxRecycled::operator new(size_t size) {
    void* const place = CRecycledPlaces::Take(size);
    return place != nullptr ? place : ::operator new(size);
}

void* CNxRecycled::operator new(size_t size, const std::nothrow_t& tag) noexcept {
    void* const place = CRecycledPlaces::Take(size);
    return place != nullptr ? place : ::operator new(size, tag);
}

void CNxRecycled::operator delete(void* memory, size_t size) noexcept {
    CRecycledPlaces::Leave(memory, size);
}

void CNxRecycled::operator delete(void* memory, const std::nothrow_t& tag) noexcept {
    ::operator delete(memory, tag);
}
