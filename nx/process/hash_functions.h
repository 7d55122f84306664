// Hashes of bytes, from libraries. Any thread may call them; a null `data` needs size 0.
//
// None is for secrets: who chooses the input can make them collide.
#pragma once

#include <cstddef>
#include <cstdint>

// XXH32 and XXH3's 64-bit form (https://xxhash.com): the same for the same seed on every machine,
// fit for files and for the wire. The 64-bit one is the faster.
std::uint32_t cnx_hash32(const void* data, size_t size, std::uint32_t seed = 0);
std::uint64_t cnx_hash64(const void* data, size_t size, std::uint64_t seed = 0);

// The CRC-32 of zip, PNG and Ethernet (zlib's crc32). That of pieces: pass the result for the one
// before as `crc`.
std::uint32_t cnx_crc32(const void* data, size_t size, std::uint32_t crc = 0);
