// Chains of byte buffers that are filled, consumed, split, shared and sent as one stream.
#pragma once

#include <sys/uio.h>

#include <cstring>

#include <nx/buffer/CNxDataBlock.h>
#include <nx/foundation/CNxAutoPtr.h>
#include <nx/foundation/CNxRecycled.h>
#include <nx/foundation/CNxString.h>
#include <nx/foundation/NxResult.h>

// A view onto a storage area, and the link to the next block of the chain:
//
//     begin          read            write           end
//       |  consumed   |  GetLength()  |  GetSpace()   |
//       |<--------------- GetCapacity() ------------->|
//
// Who owns the bytes: the area belongs to a counted CNxDataBlock that the block shares with its
// duplicates and that goes with the last of them; or (flag DONT_DELETE) it is memory of the caller,
// who keeps it alive as long as the block. Sharing means shared bytes: what is written into the
// space of one block appears in every other that views the same place.
//
// Who owns the blocks: the library makes blocks with the flag DUPLICATED on the heap (duplicates
// and split-off tails); the holder of the chain owns them and ends them with DestroyChained. A
// block without it, on the stack say, is its maker's; destroying it lets go of its storage and
// never follows the chain, so it must not be destroyed while a chain that is still used leads
// through it.
//
// A chain belongs to one thread at a time, but duplicates that share storage may be read and
// destroyed on different threads. Nothing here throws. Chains may have any length, but no circle.
// Operations go from this block to the tail, unless they say that they concern this block alone.
class CNxMessageBlock : public CNxRecycled {
public:
    static constexpr unsigned long DONT_DELETE = 0x1;      // wraps memory of the caller
    static constexpr unsigned long MALLOC_AND_COPY = 0x2;  // to the constructor: own storage
    static constexpr unsigned long DUPLICATED = 0x20000;   // on the heap, owned by the chain

    // With `data`, and without MALLOC_AND_COPY: wraps that memory, and sets DONT_DELETE. Otherwise
    // gets `size` bytes of storage of its own, UNINITIALISED ALSO WHEN `data` IS GIVEN: copying is
    // for the duplicating operations and Write. With size 0, or when there is no memory, the block
    // has no storage, null pointers and no space.
    //
    // The block starts empty, also over memory that already holds something: `advanceWritePtr`
    // says how many bytes of the area count as written. More than `size` counts as 0.
    //
    // Flags: DONT_DELETE is the constructor's to set, MALLOC_AND_COPY is never kept, the bits
    // 0xFF00 are cleared; all others are the caller's, kept and passed on to duplicates. Pass
    // DUPLICATED only for a block made with `new` that the chain shall own.
    explicit CNxMessageBlock(unsigned long size, const char* data = nullptr,
                             unsigned long flags = 0, unsigned long advanceWritePtr = 0);

    // Takes a reference to `dataBlock` and views the whole of it, empty, whatever it holds; no
    // storage if null. The flags are treated as above.
    CNxMessageBlock(CNxDataBlock* dataBlock, unsigned long flags);

    // Copying is DuplicateTopLevel() and DuplicateChained().
    CNxMessageBlock(const CNxMessageBlock&) = delete;
    CNxMessageBlock& operator=(const CNxMessageBlock&) = delete;

    // This block alone, without its chain. The pointers are those for filling and sending the
    // storage directly; AdvanceChainedWritePtr and AdvanceChainedReadPtr then account for it.
    char* GetReadPtr() const { return m_read; }
    char* GetWritePtr() const { return m_write; }
    unsigned long GetLength() const { return static_cast<unsigned long>(m_write - m_read); }
    unsigned long GetSpace() const { return static_cast<unsigned long>(m_end - m_write); }
    unsigned long GetCapacity() const { return static_cast<unsigned long>(m_end - m_begin); }
    unsigned long GetFlags() const { return m_flags; }
    // Null for memory of the caller. The block keeps its reference.
    CNxDataBlock* GetDataBlock() const { return m_dataBlock.Get(); }

    CNxMessageBlock* GetNext() const { return m_next; }
    // Frees nothing: what was linked before is the caller's.
    void SetNext(CNxMessageBlock* next) { m_next = next; }

    // Links `tail` after the last block. Nothing is copied, no ownership changes. Walks the whole
    // chain: who appends often keeps the last block and uses SetNext.
    void Append(CNxMessageBlock* tail);

    // Copies the next `count` bytes of the chain to `dst`, and consumes them unless `advance` is 0.
    // A null `dst` skips bytes, or with advance 0 measures. The amount goes to `outRead` (may be
    // null). NX_OK; NX_ERROR_PARTIAL_DATA when the chain had less, all of it now copied.
    [[nodiscard]] NxResult Read(void* dst, unsigned long count, unsigned long* outRead = nullptr,
                                int advance = 1);

    // Appends `count` bytes to THIS BLOCK ONLY, never to the next. A null `src` counts whatever is
    // in the space as written. The amount goes to `outWritten` (may be null). NX_OK;
    // NX_ERROR_PARTIAL_DATA when there was less space, which is now full.
    [[nodiscard]] NxResult Write(const void* src, unsigned long count,
                                 unsigned long* outWritten = nullptr) {
        if (src == nullptr || count == 0 || count > GetSpace()) {
            return WritePart(src, count, outWritten);
        }
        // The area may overlap with this block's: that is how one is compacted.
        std::memmove(m_write, src, count);
        m_write += count;
        if (outWritten != nullptr) {
            *outWritten = count;
        }
        return NX_OK;
    }

    // This block ends where its bytes do: nothing can be written behind them, nor in its
    // duplicates.
    void DropSpace() { m_end = m_write; }

    unsigned long GetChainedLength() const;
    unsigned long GetChainedSpace() const;
    // The same as GetChainedSpace(), not the sum of the capacities.
    unsigned long GetChainedCapacity() const;

    // Read(nullptr, count, outAdvanced): skips bytes.
    [[nodiscard]] NxResult AdvanceChainedReadPtr(unsigned long count,
                                                 unsigned long* outAdvanced = nullptr);

    // Counts `count` bytes as written after the caller filled the storage directly, block by block:
    // a block is full before the next one gets any. The amount goes to `outAdvanced` (may be null).
    // NX_OK. NX_ERROR_PARTIAL_DATA for count 0, when something was already consumed from this block
    // (nothing is done), and when the chain ends, or goes on with a block something was consumed
    // from, before the count is used up: the blocks before are then full.
    [[nodiscard]] NxResult AdvanceChainedWritePtr(unsigned long count,
                                                  unsigned long* outAdvanced = nullptr);

    // Describes the unread bytes for writev(2): one entry for each block that has any, at most
    // `maxCount`. Returns the number of entries filled, 0 for a null `iov`. Nothing is consumed.
    [[nodiscard]] unsigned long FillIov(iovec* iov, unsigned long maxCount) const;

    // The unread bytes in one string; nothing is consumed. Empty also when there is no memory for
    // it (GetChainedLength() tells the difference).
    CNxString FlattenChained() const;

    // BEWARE, for one block, or blocks that all view one storage area: every block's read pointer
    // goes to its own begin, but every write pointer to the begin of THIS block. That empties this
    // block. A later block over other storage has pointers that do not belong together afterwards;
    // it may only be unlinked and destroyed.
    void RewindChained();

    // Passes over the empty blocks at the front and returns the first block that holds something,
    // the new head, or null. Empty blocks with DUPLICATED are destroyed, possibly this one; the
    // others are left to their owners, linked to what remains of the chain after them.
    [[nodiscard]] CNxMessageBlock* ReclaimGarbage();

    // Destroys every block of the chain, this one first. All must have DUPLICATED: a block without
    // it is an assertion failure in checking builds; otherwise the walk ends there, and that block
    // and those after it stay as they are.
    void DestroyChained();

    // A new block of the same view and flags, plus DUPLICATED, not linked to anything. Storage in a
    // data block is shared and nothing copied; memory of the caller (DONT_DELETE) is copied, the
    // whole capacity, into storage of the duplicate's own. Null when there is no memory.
    [[nodiscard]] CNxMessageBlock* DuplicateTopLevel() const;

    // The same for every block, as a new chain. Null, and nothing left over, when there is no
    // memory.
    [[nodiscard]] CNxMessageBlock* DuplicateChained() const;

    // Cuts the chain after its first `offset` unread bytes and returns what follows: a chain in
    // which every block has DUPLICATED, to be ended with DestroyChained. Empty blocks in front of
    // the cut stay here, so does the block that ends at it. A block that the cut goes through is
    // duplicated and both keep their half; with offset 0 that leaves this side empty. Blocks of the
    // tail without DUPLICATED are replaced by duplicates, unlinked, and left to their owners.
    //
    // BEWARE: the halves of one block share its storage (unless it is memory of the caller), and
    // the space of the front half is where the bytes of the tail are. Do not write into it.
    //
    // Null, with nothing changed, when there is nothing to detach: the chain has fewer than
    // `offset` bytes, or its last block ends at the cut, or (offset 0) all are
    // empty. Null as well when there is no memory for the duplicates; the chain is then whole as
    // before.
    [[nodiscard]] CNxMessageBlock* Disjoint(unsigned long offset);

private:
    NxResult WritePart(const void* src, unsigned long count, unsigned long* outWritten);
    bool IsInOrder() const { return m_begin <= m_read && m_read <= m_write && m_write <= m_end; }
    bool IsDuplicated() const { return (m_flags & DUPLICATED) != 0; }
    void ViewStorage(char* begin, unsigned long size);
    CNxMessageBlock* MakeCopyOfStorage() const;
    [[nodiscard]] static bool MakeAllDuplicated(CNxMessageBlock*& head);

    CNxMessageBlock* m_next = nullptr;
    CNxAutoPtr<CNxDataBlock> m_dataBlock;
    char* m_read = nullptr;
    char* m_write = nullptr;
    char* m_begin = nullptr;
    char* m_end = nullptr;
    unsigned long m_flags;
};
