#include <kv_server/BlockChain.h>
#include <sys/socket.h>

#include <algorithm>
#include <new>
#include <utility>

namespace kv_server {

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

void BlockChain::Write(std::string_view bytes) {
    m_size += bytes.size();
    if (m_tail != nullptr) {
        unsigned long written = 0;
        // What does not fit goes into a block of its own.
        static_cast<void>(m_tail->Write(bytes.data(), bytes.size(), &written));
        bytes.remove_prefix(written);
    }
    if (!bytes.empty()) {
        ChainPtr block = MakeBlock(std::max(bytes.size(), c_blockSize));
        static_cast<void>(block->Write(bytes.data(), bytes.size()));  // made to fit
        Link(std::move(block));
    }
}

void BlockChain::Share(CNxDataBlock* data) {
    ChainPtr block(new CNxMessageBlock(data, CNxMessageBlock::DUPLICATED));
    // All of it counts as written, so no later Write finds space in it.
    static_cast<void>(block->Write(nullptr, data->GetSize()));
    m_size += data->GetSize();
    Link(std::move(block));
}

void BlockChain::Link(ChainPtr block) {
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
    m_size -= static_cast<std::size_t>(sent);
    // The chain has at least what was sent of it.
    static_cast<void>(m_head->AdvanceChainedReadPtr(static_cast<unsigned long>(sent)));
    m_head.reset(m_head.release()->ReclaimGarbage());
    if (m_head == nullptr) {
        m_tail = nullptr;
    }
    return sent;
}

}  // namespace kv_server
