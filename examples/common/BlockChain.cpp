#include <common/BlockChain.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <new>
#include <utility>

namespace examples {

namespace {

// Most replies are short: a batch of them fits one block.
constexpr std::size_t c_blockSize = 4096;
constexpr std::size_t c_piecesPerSend = 64;

}  // namespace

ChainPtr MakeBlock(std::size_t capacity) {
    ChainPtr block(new CNxMessageBlock(capacity, nullptr, CNxMessageBlock::DUPLICATED));
    if (block->GetCapacity() < capacity) {
        throw std::bad_alloc();
    }
    return block;
}

void Fill(CNxMessageBlock& block, std::string_view bytes) {
    const NxResult result = block.Write(bytes.data(), bytes.size());
    assert(result == NX_OK);
    static_cast<void>(result);
}

// A block for what the last one has no room for; null when it has.
ChainPtr BlockChain::MakeRoom(std::size_t size) const {
    const std::size_t space = GetSpace();
    return size > space ? MakeBlock(std::max(size - space, c_blockSize)) : nullptr;
}

// Fills the last block, then `more`, which is linked when it is needed.
void BlockChain::Put(std::string_view bytes, ChainPtr& more) {
    m_size += bytes.size();
    if (m_tail != nullptr) {
        unsigned long written = 0;
        // A part of them is as good as all.
        static_cast<void>(m_tail->Write(bytes.data(), bytes.size(), &written));
        bytes.remove_prefix(written);
    }
    if (!bytes.empty()) {
        Link(std::move(more));
        Fill(*m_tail, bytes);
    }
}

void BlockChain::Write(std::initializer_list<std::string_view> parts) {
    std::size_t size = 0;
    for (const std::string_view part : parts) {
        size += part.size();
    }
    ChainPtr more = MakeRoom(size);
    for (const std::string_view part : parts) {
        Put(part, more);
    }
    assert(more == nullptr);
}

void BlockChain::Share(std::string_view before, CNxDataBlock* data, std::string_view after) {
    ChainPtr more = MakeRoom(before.size());
    ChainPtr shared(new CNxMessageBlock(data, CNxMessageBlock::DUPLICATED));
    ChainPtr last = MakeBlock(std::max(after.size(), c_blockSize));
    Put(before, more);
    // All of it counts as written, so no later Write finds space in it.
    Fill(*shared, {nullptr, data->GetSize()});
    m_size += data->GetSize();
    Link(std::move(shared));
    Put(after, last);
}

void BlockChain::Reserve(std::size_t size) {
    if (GetSpace() < size) {
        Link(MakeBlock(std::max(size, c_blockSize)));
    }
}

void BlockChain::Link(ChainPtr block) {
    assert(block != nullptr && (m_head == nullptr) == (m_tail == nullptr));
    CNxMessageBlock* const added = block.release();
    if (m_tail != nullptr) {
        m_tail->SetNext(added);
    } else {
        m_head.reset(added);
    }
    m_tail = added;
}

void BlockChain::Append(BlockChain&& other) noexcept {
    if (other.m_head == nullptr) {
        return;
    }
    CNxMessageBlock* const otherTail = std::exchange(other.m_tail, nullptr);
    m_size += std::exchange(other.m_size, 0);
    Link(std::move(other.m_head));
    m_tail = otherTail;
}

long BlockChain::SendTo(int socket) {
    iovec pieces[c_piecesPerSend];
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = m_head != nullptr ? m_head->FillIov(pieces, c_piecesPerSend) : 0;
    const ssize_t sent = sendmsg(socket, &message, MSG_NOSIGNAL);
    if (sent <= 0) {
        return sent;
    }
    assert(static_cast<std::size_t>(sent) <= m_size);
    m_size -= static_cast<std::size_t>(sent);
    // Fails for more than there is only.
    static_cast<void>(m_head->AdvanceChainedReadPtr(static_cast<unsigned long>(sent)));
    m_head.reset(m_head.release()->ReclaimGarbage());
    if (m_head == nullptr) {
        m_tail = nullptr;
    }
    assert((m_head == nullptr) == (m_size == 0));
    return sent;
}

}  // namespace examples
