#include <nx/foundation/CKeptErrno.h>
#include <nx/process/read_descriptor.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <new>

namespace {

// An empty one when there is no memory.
CBlockOwner MakeBlock(unsigned long size) {
    CBlockOwner block(new (std::nothrow)
                          CNxMessageBlock(size, nullptr, CNxMessageBlock::DUPLICATED));
    if (block && block->GetCapacity() != size) {
        block.reset();
    }
    return block;
}

// Twice the room, but no more than is ever needed.
bool Grow(CBlockOwner& block, unsigned long most) {
    CBlockOwner larger = MakeBlock(std::min(block->GetCapacity() * 2, most));
    if (!larger || larger->Write(block->GetReadPtr(), block->GetLength()) != NX_OK) {
        return false;
    }
    block.swap(larger);
    return true;
}

}  // namespace

NxResult ReadToEnd(int fd, unsigned long expected, unsigned long maxSize, CBlockOwner& out) {
    const unsigned long most = std::min(maxSize, ~0UL / 4) + 1;  // one more tells what is too large
    if (expected > maxSize) {
        return ResultOfError(EFBIG);
    }
    CBlockOwner block = MakeBlock(std::min(expected + 1, most));
    while (block) {
        const ssize_t count = read(fd, block->GetWritePtr(), block->GetSpace());
        if (count < 0 && errno != EINTR) {
            return NX_ERROR_FAILURE;
        }
        if (count == 0) {
            out.swap(block);
            return NX_OK;
        }
        if (count > 0 && block->Write(nullptr, static_cast<unsigned long>(count)) != NX_OK) {
            return NX_ERROR_UNEXPECTED;
        }
        if (block->GetLength() == most) {
            return ResultOfError(EFBIG);
        }
        if (block->GetSpace() == 0 && !Grow(block, most)) {
            break;
        }
        assert(block->GetSpace() > 0);
    }
    return ResultOfError(ENOMEM);
}
