// An owned stream of bytes in message blocks: written at the back, read and consumed at the front.
//
//     CNxMessageChain reply;
//     reply.Append({"HTTP/1.1 200 OK\r\nContent-Length: ", length, "\r\n\r\n"});
//     reply.Append(body.Share());             // not copied
//     connection.Send(std::move(reply));
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <nx/buffer/CNxDataBlock.h>
#include <nx/buffer/CNxMessageBlock.h>

// The order of the bytes of an integer: big is that of the network.
enum class ENxByteOrder { BIG, LITTLE };

// Who owns what: the chain owns its blocks, which all have DUPLICATED; the bytes belong to counted
// storage that chains may share (Share, Split). A few shared bytes keep the whole of their storage,
// up to 16 KiB, from being freed: what is kept for long is better copied. Shared bytes are never
// written to again: of all that look at one storage only the chain that made it, or has taken it
// over with the block at its end, writes, and only behind the bytes that the others see.
//
// Belongs to one thread at a time; chains that share storage may be used on different threads. The
// length is kept, not counted. Blocks and their storage are recycled between all chains of all
// threads, so that steady traffic allocates nothing. A chain without bytes holds no storage, except
// between MakeSpace and the next change.
//
// What needs memory and finds none throws std::bad_alloc, and has changed nothing.
class CNxMessageChain {
public:
    static constexpr size_t c_notFound = static_cast<size_t>(-1);

    CNxMessageChain() = default;
    explicit CNxMessageChain(std::string_view bytes) { Append(bytes); }
    ~CNxMessageChain() { Clear(); }

    // The other is empty afterwards.
    CNxMessageChain(CNxMessageChain&& other) noexcept { Append(std::move(other)); }
    CNxMessageChain& operator=(CNxMessageChain&& other) noexcept;
    // Copying is Share().
    CNxMessageChain(const CNxMessageChain&) = delete;
    CNxMessageChain& operator=(const CNxMessageChain&) = delete;

    // Takes over a chain in which every block has DUPLICATED; may be null. The blocks lose their
    // space.
    static CNxMessageChain Adopt(CNxMessageBlock* head);
    // Gives the blocks away, null if there are none: the caller ends them with DestroyChained.
    [[nodiscard]] CNxMessageBlock* Release();

    // Bytes.
    size_t GetSize() const { return m_size; }
    bool IsEmpty() const { return m_size == 0; }
    void Clear() noexcept {
        if (m_head != nullptr) {
            DropBlocks();
        }
    }

    // Copies the bytes after what is there; they may be the chain's own. Into blocks of 512 B at
    // first, of 4 and 16 KiB as the chain grows.
    void Append(std::string_view bytes);
    void Append(std::initializer_list<std::string_view> parts);

    // Takes over what the other holds; copies nothing. Of itself: nothing happens.
    void Append(CNxMessageChain&& other) noexcept;

    // Appends the whole payload without copying it, and takes a reference of its own. Nobody may
    // write to it any more. Null or without a payload: nothing happens.
    void Append(CNxDataBlock* data);

    // Appends memory without copying it; `release(argument)` is called once, on any thread, when
    // the last chain lets go of it, also when this throws; at once for no bytes. Null for memory
    // that is there for ever.
    void AppendAdopted(const char* data, size_t size, void (*release)(void*), void* argument);

    // The value in so many bytes as its type has.
    template <class Integer>
    void AppendInteger(Integer value, ENxByteOrder order = ENxByteOrder::BIG) {
        static_assert(std::is_integral_v<Integer>);
        AppendIntegerOf(sizeof(Integer), static_cast<std::uint64_t>(value), order);
    }

    // The lowest `width` bytes of the value, 1 to 8; for other widths nothing happens.
    void AppendIntegerOf(size_t width, std::uint64_t value, ENxByteOrder order = ENxByteOrder::BIG);

    // Makes `size` bytes of space in one piece behind the last byte, at least 1, and returns it; at
    // least `size`, GetSpaceSize() tells how many. What is filled of it counts by Commit, not more
    // than there is; Commit(0) gives space back that was not needed. Space stays good until the
    // chain is changed in another way.
    char* MakeSpace(size_t size);
    size_t GetSpaceSize() const { return m_tail != nullptr ? m_tail->GetSpace() : 0; }
    void Commit(size_t size);

    // Drops so many bytes from the front; all, if there are no more.
    void Consume(size_t count) noexcept;

    // Takes the first `count` bytes off and returns them; all, if there are no more. A block that
    // the cut goes through is shared by both.
    [[nodiscard]] CNxMessageChain Split(size_t count);

    // A chain of the same bytes, or `count` of them from `offset` on (as many as there are), that
    // shares their storage.
    [[nodiscard]] CNxMessageChain Share() const { return Share(0, m_size); }
    [[nodiscard]] CNxMessageChain Share(size_t offset, size_t count) const;

    // Where the byte or the text begins, from the offset `from` on and across blocks; c_notFound.
    // An empty text is found at `from`, if that is not behind the end.
    [[nodiscard]] size_t Find(char byte, size_t from = 0) const;
    [[nodiscard]] size_t Find(std::string_view text, size_t from = 0) const;

    // Copies at most `count` bytes from `offset` on to `to`, and returns how many. Consumes
    // nothing.
    size_t Copy(void* to, size_t count, size_t offset = 0) const;

    // The integer at `offset`. False, with `value` as it was, when there are not enough bytes.
    template <class Integer>
    [[nodiscard]] bool Peek(Integer& value, size_t offset = 0,
                            ENxByteOrder order = ENxByteOrder::BIG) const {
        static_assert(std::is_integral_v<Integer>);
        std::uint64_t wide = 0;
        if (!PeekIntegerOf(sizeof(Integer), wide, offset, order)) {
            return false;
        }
        value = static_cast<Integer>(wide);
        return true;
    }

    // The same for one of `width` bytes, 1 to 8, without a sign; false for other widths.
    [[nodiscard]] bool PeekIntegerOf(size_t width, std::uint64_t& value, size_t offset = 0,
                                     ENxByteOrder order = ENxByteOrder::BIG) const;

    // The first piece, as long as it lies in one block: empty only when the chain is.
    std::string_view GetFront() const;

    // The first `count` bytes in one piece (all, if there are no more): moves bytes together where
    // they are not. Good until the chain is changed.
    std::string_view Flatten(size_t count);

    // All bytes; nothing is consumed.
    std::string ToString() const;

    // Describes the bytes for writev(2): one entry for each block, at most `maxCount`. Returns the
    // number of entries.
    size_t FillIov(iovec* iov, size_t maxCount) const;

private:
    void Link(CNxMessageBlock* head, CNxMessageBlock* tail) noexcept;
    void AddSpace(size_t size, size_t held);
    void DropBlocks() noexcept;
    void DropUnusedSpace() noexcept;
    bool IsInOrder() const;

    // The first block has bytes unless there are none; then there is at most one block, for space.
    // Blocks have space only where they were made here, or in a chain that they came from: others
    // that see the same storage see nothing behind its bytes.
    CNxMessageBlock* m_head = nullptr;
    CNxMessageBlock* m_tail = nullptr;
    size_t m_size = 0;
};
