// Inside the library only: reads a descriptor to its end.
#pragma once

#include <nx/buffer/CNxMessageBlock.h>

#include <memory>

struct CChainEnd {
    void operator()(CNxMessageBlock* chain) const { chain->DestroyChained(); }
};
using CBlockOwner = std::unique_ptr<CNxMessageBlock, CChainEnd>;

// Begins with room for `expected` bytes and one more, so that a file of that size is read in one
// go. NX_OK with one new block; NX_ERROR_FAILURE with errno: EFBIG for more than `maxSize` bytes,
// which is at once when so many are expected, ENOMEM, or that of read(2).
[[nodiscard]] NxResult ReadToEnd(int fd, unsigned long expected, unsigned long maxSize,
                                 CBlockOwner& out);
