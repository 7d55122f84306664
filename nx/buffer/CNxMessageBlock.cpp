#include <nx/buffer/CNxMessageBlock.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <exception>
#include <new>

namespace {

constexpr unsigned long c_internalFlags = 0xFF00;
constexpr unsigned long c_neverKept = CNxMessageBlock::MALLOC_AND_COPY | c_internalFlags;

// Null is as good as any pointer where nothing is to be copied. The areas may overlap: a block is
// compacted by reading it to its own front.
void CopyBytes(void* dst, const void* src, unsigned long count) {
    if (dst != nullptr && src != nullptr && count != 0) {
        std::memmove(dst, src, count);
    }
}

NxResult Report(unsigned long done, unsigned long* out, NxResult result) {
    if (out != nullptr) {
        *out = done;
    }
    return result;
}

}  // namespace

CNxMessageBlock::CNxMessageBlock(unsigned long size, const char* data, unsigned long flags,
                                 unsigned long advanceWritePtr)
    : m_flags(flags & ~(DONT_DELETE | c_neverKept)) {
    if (data != nullptr && (flags & MALLOC_AND_COPY) == 0) {
        ViewStorage(const_cast<char*>(data), size);
        m_flags |= DONT_DELETE;
    } else if (size != 0) {
        CNxDataBlock* storage = nullptr;
        if (CNxDataBlock::CreateInstance(storage, size, nullptr) == NX_OK) {
            m_dataBlock = CNxAutoPtr<CNxDataBlock>::Adopt(storage);
            ViewStorage(storage->GetData(), size);
        }
    }
    if (advanceWritePtr <= GetSpace()) {
        m_write += advanceWritePtr;
    }
    assert(IsInOrder());
}

CNxMessageBlock::CNxMessageBlock(CNxDataBlock* dataBlock, unsigned long flags)
    : m_dataBlock(dataBlock), m_flags(flags & ~(DONT_DELETE | c_neverKept)) {
    if (dataBlock != nullptr) {
        ViewStorage(dataBlock->GetData(), dataBlock->GetSize());
    }
}

void CNxMessageBlock::ViewStorage(char* begin, unsigned long size) {
    m_begin = m_read = m_write = begin;
    m_end = begin + size;
}

void CNxMessageBlock::Append(CNxMessageBlock* tail) {
    CNxMessageBlock* last = this;
    while (last->m_next != nullptr) {
        last = last->m_next;
    }
    last->m_next = tail;
}

NxResult CNxMessageBlock::Read(void* dst, unsigned long count, unsigned long* outRead,
                               int advance) {
    char* to = static_cast<char*>(dst);
    unsigned long remaining = count;
    for (CNxMessageBlock* block = this; block != nullptr; block = block->m_next) {
        assert(block->IsInOrder());
        const unsigned long n = std::min(remaining, block->GetLength());
        CopyBytes(to, block->m_read, n);
        if (advance != 0) {
            block->m_read += n;
        }
        remaining -= n;
        if (remaining == 0) {
            return Report(count, outRead, NX_OK);
        }
        if (to != nullptr) {
            to += n;
        }
    }
    return Report(count - remaining, outRead, NX_ERROR_PARTIAL_DATA);
}

NxResult CNxMessageBlock::WritePart(const void* src, unsigned long count,
                                    unsigned long* outWritten) {
    assert(IsInOrder());
    const unsigned long n = std::min(count, GetSpace());
    CopyBytes(m_write, src, n);
    m_write += n;
    return Report(n, outWritten, n < count ? NX_ERROR_PARTIAL_DATA : NX_OK);
}

unsigned long CNxMessageBlock::GetChainedLength() const {
    unsigned long sum = 0;
    for (const CNxMessageBlock* block = this; block != nullptr; block = block->m_next) {
        sum += block->GetLength();
    }
    return sum;
}

unsigned long CNxMessageBlock::GetChainedSpace() const {
    unsigned long sum = 0;
    for (const CNxMessageBlock* block = this; block != nullptr; block = block->m_next) {
        sum += block->GetSpace();
    }
    return sum;
}

unsigned long CNxMessageBlock::GetChainedCapacity() const {
    return GetChainedSpace();
}

NxResult CNxMessageBlock::AdvanceChainedReadPtr(unsigned long count, unsigned long* outAdvanced) {
    return Read(nullptr, count, outAdvanced, 1);
}

NxResult CNxMessageBlock::AdvanceChainedWritePtr(unsigned long count, unsigned long* outAdvanced) {
    // Nothing to account for is a failure, as for a receive that brought nothing.
    if (count == 0) {
        return Report(0, outAdvanced, NX_ERROR_PARTIAL_DATA);
    }
    unsigned long remaining = count;
    for (CNxMessageBlock* block = this; block != nullptr && block->m_read == block->m_begin;
         block = block->m_next) {
        assert(block->IsInOrder());
        const unsigned long n = std::min(remaining, block->GetSpace());
        block->m_write += n;
        remaining -= n;
        if (remaining == 0) {
            return Report(count, outAdvanced, NX_OK);
        }
    }
    return Report(count - remaining, outAdvanced, NX_ERROR_PARTIAL_DATA);
}

unsigned long CNxMessageBlock::FillIov(iovec* iov, unsigned long maxCount) const {
    if (iov == nullptr) {
        return 0;
    }
    unsigned long filled = 0;
    for (const CNxMessageBlock* block = this; block != nullptr && filled < maxCount;
         block = block->m_next) {
        assert(block->IsInOrder());
        if (block->GetLength() != 0) {
            iov[filled++] = iovec{block->m_read, block->GetLength()};
        }
    }
    return filled;
}

CNxString CNxMessageBlock::FlattenChained() const {
    CNxString bytes;
    try {
        bytes.reserve(GetChainedLength() + 1);
    } catch (const std::exception&) {
        return bytes;
    }
    for (const CNxMessageBlock* block = this; block != nullptr; block = block->m_next) {
        if (block->GetLength() != 0) {
            bytes.append(block->m_read, block->GetLength());
        }
    }
    return bytes;
}

void CNxMessageBlock::RewindChained() {
    for (CNxMessageBlock* block = this; block != nullptr; block = block->m_next) {
        block->m_read = block->m_begin;
        // The head's begin, also for the blocks after it.
        block->m_write = m_begin;
    }
}

CNxMessageBlock* CNxMessageBlock::ReclaimGarbage() {
    CNxMessageBlock* left = nullptr;
    CNxMessageBlock* block = this;
    while (block != nullptr && block->m_read == block->m_write) {
        CNxMessageBlock* next = block->m_next;
        if (!block->IsDuplicated()) {
            left = block;
        } else {
            delete block;
            // A block left to its owner must not lead to one that is gone.
            if (left != nullptr) {
                left->m_next = next;
            }
        }
        block = next;
    }
    return block;
}

void CNxMessageBlock::DestroyChained() {
    CNxMessageBlock* block = this;
    while (block != nullptr) {
        assert(block->IsDuplicated() && "DestroyChained on a block that the chain does not own");
        if (!block->IsDuplicated()) {
            return;
        }
        CNxMessageBlock* next = block->m_next;
        delete block;
        block = next;
    }
}

CNxMessageBlock* CNxMessageBlock::MakeCopyOfStorage() const {
    const unsigned long flags = (m_flags & ~DONT_DELETE) | MALLOC_AND_COPY;
    CNxMessageBlock* copy = new (std::nothrow) CNxMessageBlock(GetCapacity(), m_begin, flags);
    if (copy == nullptr) {
        return nullptr;
    }
    if (copy->GetCapacity() != GetCapacity()) {
        delete copy;
        return nullptr;
    }
    CopyBytes(copy->m_begin, m_begin, GetCapacity());
    return copy;
}

CNxMessageBlock* CNxMessageBlock::DuplicateTopLevel() const {
    CNxMessageBlock* copy = (m_flags & DONT_DELETE) != 0
                                ? MakeCopyOfStorage()
                                : new (std::nothrow) CNxMessageBlock(m_dataBlock.Get(), m_flags);
    if (copy != nullptr) {
        copy->m_read = copy->m_begin + (m_read - m_begin);
        copy->m_write = copy->m_begin + (m_write - m_begin);
        copy->m_end = copy->m_begin + (m_end - m_begin);
        copy->m_flags |= DUPLICATED;
        assert(copy->IsInOrder() && copy->GetCapacity() == GetCapacity());
    }
    return copy;
}

CNxMessageBlock* CNxMessageBlock::DuplicateChained() const {
    CNxMessageBlock* head = nullptr;
    CNxMessageBlock** link = &head;
    for (const CNxMessageBlock* block = this; block != nullptr; block = block->m_next) {
        *link = block->DuplicateTopLevel();
        if (*link == nullptr) {
            if (head != nullptr) {
                head->DestroyChained();
            }
            return nullptr;
        }
        link = &(*link)->m_next;
    }
    return head;
}

// Replaces the blocks of a chain that have owners of their own. All duplicates are made before the
// first link is touched: on false nothing has changed.
bool CNxMessageBlock::MakeAllDuplicated(CNxMessageBlock*& head) {
    CNxMessageBlock* copies = nullptr;
    CNxMessageBlock** lastLink = &copies;
    for (const CNxMessageBlock* block = head; block != nullptr; block = block->m_next) {
        if (block->IsDuplicated()) {
            continue;
        }
        *lastLink = block->DuplicateTopLevel();
        if (*lastLink == nullptr) {
            if (copies != nullptr) {
                copies->DestroyChained();
            }
            return false;
        }
        lastLink = &(*lastLink)->m_next;
    }
    for (CNxMessageBlock** link = &head; copies != nullptr; link = &(*link)->m_next) {
        CNxMessageBlock* block = *link;
        assert(block != nullptr);
        if (!block->IsDuplicated()) {
            *link = copies;
            copies = copies->m_next;
            (*link)->m_next = block->m_next;
            block->m_next = nullptr;
        }
    }
    return true;
}

CNxMessageBlock* CNxMessageBlock::Disjoint(unsigned long offset) {
    CNxMessageBlock* last = this;
    // Past the blocks that end before the cut; with nothing left to pass, past empty ones.
    while (last != nullptr &&
           (last->GetLength() < offset || (offset == 0 && last->GetLength() == 0))) {
        assert(last->IsInOrder());
        offset -= last->GetLength();
        last = last->m_next;
    }
    if (last == nullptr) {
        return nullptr;
    }
    CNxMessageBlock* half = nullptr;
    if (offset < last->GetLength()) {
        half = last->DuplicateTopLevel();
        if (half == nullptr) {
            return nullptr;
        }
    }
    CNxMessageBlock* tail = last->m_next;
    if (!MakeAllDuplicated(tail)) {
        delete half;
        return nullptr;
    }
    if (half != nullptr) {
        half->m_next = tail;
        half->m_read += offset;
        last->m_write = last->m_read + offset;
        assert(half->IsInOrder() && last->IsInOrder());
        tail = half;
    }
    last->m_next = nullptr;
    assert(tail == nullptr || tail->IsDuplicated());
    return tail;
}
