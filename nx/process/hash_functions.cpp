#include <nx/process/hash_functions.h>

// Into this unit: programs need no library for it.
#define XXH_INLINE_ALL
#include <xxhash.h>

std::uint32_t cnx_hash32(const void* data, size_t size, std::uint32_t seed) {
    return XXH32(data, size, seed);
}

std::uint64_t cnx_hash64(const void* data, size_t size, std::uint64_t seed) {
    return XXH3_64bits_withSeed(data, size, seed);
}
