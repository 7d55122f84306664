// A stream of bytes in message blocks: written at the back, sent and dropped at the front.
#pragma once

#include <nx/buffer/CNxMessageBlock.h>

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string_view>

namespace examples {

struct DestroyChain {
    void operator()(CNxMessageBlock* head) const { head->DestroyChained(); }
};
using ChainPtr = std::unique_ptr<CNxMessageBlock, DestroyChain>;

// A new block with room for at least `capacity` bytes. Throws std::bad_alloc.
ChainPtr MakeBlock(std::size_t capacity);

// Writes the bytes into the block, which has room for them.
void Fill(CNxMessageBlock& block, std::string_view bytes);

// Owns its blocks. Belongs to one thread at a time. What writes throws std::bad_alloc, and has then
// written nothing.
class BlockChain {
public:
    BlockChain() = default;
    BlockChain(BlockChain&& other) noexcept { Append(std::move(other)); }
    BlockChain& operator=(BlockChain&&) = delete;

    std::size_t GetSize() const { return m_size; }
    bool IsEmpty() const { return m_size == 0; }

    // Copies the parts after what is there.
    void Write(std::initializer_list<std::string_view> parts);

    // Appends `before`, the whole of the data block without copying it, and `after`; takes a
    // reference of its own.
    void Share(std::string_view before, CNxDataBlock* data, std::string_view after);

    // Makes room: writing so many bytes next cannot fail.
    void Reserve(std::size_t size);

    // Takes over the blocks of the other, which is empty afterwards.
    void Append(BlockChain&& other) noexcept;

    // One sendmsg(2) of as much as it takes, without SIGPIPE; drops what was sent. Returns its
    // result: the bytes sent, or -1 with errno.
    [[nodiscard]] long SendTo(int socket);

private:
    std::size_t GetSpace() const { return m_tail != nullptr ? m_tail->GetSpace() : 0; }
    ChainPtr MakeRoom(std::size_t size) const;
    void Put(std::string_view bytes, ChainPtr& more);
    void Link(ChainPtr block);

    ChainPtr m_head;
    CNxMessageBlock* m_tail = nullptr;
    std::size_t m_size = 0;
};

}  // namespace examples
