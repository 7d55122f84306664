#include <nx/buffer/CNxMessageChain.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include <nx/foundation/CNxRecycled.h>

namespace {

// Those that CNxDataBlock recycles.
constexpr size_t c_blockSizes[] = {512, 4096, 16384, 65536};
constexpr size_t c_growthEnd = 16384;

struct CDestroyChained {
    void operator()(CNxMessageBlock* head) const { head->DestroyChained(); }
};
using BlockPtr = std::unique_ptr<CNxMessageBlock, CDestroyChained>;

// A chain that holds little gets little.
size_t GetGrowth(size_t held) {
    return held < 512 ? 512 : held < 8192 ? 4096 : c_growthEnd;
}

size_t RoundUp(size_t size) {
    for (const size_t blockSize : c_blockSizes) {
        if (size <= blockSize) {
            return blockSize;
        }
    }
    return size;
}

BlockPtr MakeBlock(size_t size) {
    BlockPtr block(new CNxMessageBlock(size, nullptr, CNxMessageBlock::DUPLICATED));
    if (block->GetCapacity() < size) {
        throw std::bad_alloc();
    }
    return block;
}

// Into the space of the block, which has it; null for what lies there already.
void Write(CNxMessageBlock& block, const char* bytes, size_t size) {
    const NxResult result = block.Write(bytes, size);
    assert(result == NX_OK);
    static_cast<void>(result);
}

// Of the blocks from this one on, which have so many bytes.
void Skip(CNxMessageBlock& block, size_t count) {
    const NxResult result = block.AdvanceChainedReadPtr(count);
    assert(result == NX_OK);
    static_cast<void>(result);
}

// A block of a part of the bytes: of the same storage, unless that is memory of somebody else.
BlockPtr MakeView(const CNxMessageBlock& block, size_t offset, size_t count) {
    assert(offset + count <= block.GetLength());
    CNxDataBlock* const data = block.GetDataBlock();
    if (data == nullptr) {
        BlockPtr copy = MakeBlock(count);
        Write(*copy, block.GetReadPtr() + offset, count);
        return copy;
    }
    BlockPtr view(new CNxMessageBlock(data, block.GetFlags() | CNxMessageBlock::DUPLICATED));
    const size_t begin = static_cast<size_t>(block.GetReadPtr() - data->GetData()) + offset;
    Write(*view, nullptr, begin + count);
    Skip(*view, begin);
    view->DropSpace();
    return view;
}

// Memory of somebody else who is told when it is free.
class CAdoptedData final : public CNxDataBlock, public CNxRecycled {
public:
    using Release = void (*)(void*);

    CAdoptedData(const char* data, size_t size, Release release, void* argument)
        : CNxDataBlock(size, const_cast<char*>(data)), m_release(release), m_argument(argument) {}
    ~CAdoptedData() override {
        if (m_release != nullptr) {
            m_release(m_argument);
        }
    }
    CAdoptedData(const CAdoptedData&) = delete;
    CAdoptedData& operator=(const CAdoptedData&) = delete;

    using CNxRecycled::operator new;
    using CNxRecycled::operator delete;

private:
    const Release m_release;
    void* const m_argument;
};

// The block in which so many bytes end, which are counted down to those of them that it has: less
// than all.
const CNxMessageBlock* FindBlock(const CNxMessageBlock* block, size_t& offset) {
    while (block != nullptr && offset >= block->GetLength()) {
        offset -= block->GetLength();
        block = block->GetNext();
    }
    return block;
}

bool StartsWith(const CNxMessageBlock* block, size_t offset, std::string_view text) {
    for (; block != nullptr; block = block->GetNext(), offset = 0) {
        const size_t n = std::min(block->GetLength() - offset, text.size());
        if (std::string_view(block->GetReadPtr() + offset, n) != text.substr(0, n)) {
            return false;
        }
        text.remove_prefix(n);
        if (text.empty()) {
            return true;
        }
    }
    return false;
}

// Where in this block a text begins that ends in this one or in those after it.
size_t FindInBlock(const CNxMessageBlock& block, size_t offset, std::string_view text) {
    const std::string_view bytes(block.GetReadPtr(), block.GetLength());
    if (bytes.size() - offset >= text.size()) {
        const void* const found =
            memmem(bytes.data() + offset, bytes.size() - offset, text.data(), text.size());
        if (found != nullptr) {
            return static_cast<size_t>(static_cast<const char*>(found) - bytes.data());
        }
        offset = bytes.size() - text.size() + 1;
    }
    while ((offset = bytes.find(text.front(), offset)) != std::string_view::npos) {
        if (StartsWith(&block, offset, text)) {
            return offset;
        }
        ++offset;
    }
    return CNxMessageChain::c_notFound;
}

// Where the byte of that significance lies.
size_t GetPlace(size_t significance, size_t width, ENxByteOrder order) {
    return order == ENxByteOrder::LITTLE ? significance : width - 1 - significance;
}

}  // namespace

CNxMessageChain& CNxMessageChain::operator=(CNxMessageChain&& other) noexcept {
    if (this != &other) {
        Clear();
        Append(std::move(other));
    }
    return *this;
}

CNxMessageChain CNxMessageChain::Adopt(CNxMessageBlock* head) {
    CNxMessageChain chain;
    chain.m_head = head != nullptr ? head->ReclaimGarbage() : nullptr;
    for (CNxMessageBlock* block = chain.m_head; block != nullptr; block = block->GetNext()) {
        block->DropSpace();
        chain.m_size += block->GetLength();
        chain.m_tail = block;
    }
    assert(chain.IsInOrder());
    return chain;
}

CNxMessageBlock* CNxMessageChain::Release() {
    if (m_size == 0) {
        Clear();
    }
    m_tail = nullptr;
    m_size = 0;
    return std::exchange(m_head, nullptr);
}

// Whoever is told that adopted memory is free may already use the chain again.
void CNxMessageChain::DropBlocks() noexcept {
    CNxMessageBlock* const head = std::exchange(m_head, nullptr);
    m_tail = nullptr;
    m_size = 0;
    head->DestroyChained();
}

bool CNxMessageChain::IsInOrder() const {
    return (m_head == nullptr) == (m_tail == nullptr) &&
           (m_tail == nullptr || m_tail->GetNext() == nullptr) &&
           (m_size == 0 ? m_head == m_tail : m_head->GetLength() != 0);
}

void CNxMessageChain::Link(CNxMessageBlock* head, CNxMessageBlock* tail) noexcept {
    assert(head != nullptr && tail != nullptr && tail->GetNext() == nullptr);
    if (m_tail != nullptr) {
        m_tail->SetNext(head);
    } else {
        m_head = head;
    }
    m_tail = tail;
}

// Links empty blocks for so many bytes; `held` are those before them.
void CNxMessageChain::AddSpace(size_t size, size_t held) {
    while (size != 0) {
        const size_t blockSize = std::max(GetGrowth(held), std::min(RoundUp(size), c_growthEnd));
        CNxMessageBlock* const block = MakeBlock(blockSize).release();
        Link(block, block);
        const size_t used = std::min(size, blockSize);
        size -= used;
        held += used;
    }
}

void CNxMessageChain::Append(std::string_view bytes) {
    const size_t space = GetSpaceSize();
    if (bytes.size() > space && (space != 0 || bytes.size() > c_growthEnd)) {
        Append({bytes});
    } else if (!bytes.empty()) {
        if (space == 0) {
            AddSpace(bytes.size(), m_size);
        }
        Write(*m_tail, bytes.data(), bytes.size());
        m_size += bytes.size();
    }
}

void CNxMessageChain::Append(std::initializer_list<std::string_view> parts) {
    size_t size = 0;
    for (const std::string_view part : parts) {
        size += part.size();
    }
    const size_t space = GetSpaceSize();
    CNxMessageBlock* into = space != 0 ? m_tail : nullptr;
    if (size > space) {
        CNxMessageChain more;
        more.AddSpace(size - space, m_size + space);
        into = into != nullptr ? into : more.m_head;
        Link(std::exchange(more.m_head, nullptr), std::exchange(more.m_tail, nullptr));
    }
    for (std::string_view part : parts) {
        while (!part.empty()) {
            assert(into != nullptr);
            const size_t n = std::min<size_t>(part.size(), into->GetSpace());
            Write(*into, part.data(), n);
            part.remove_prefix(n);
            into = into->GetSpace() != 0 ? into : into->GetNext();
        }
    }
    m_size += size;
    assert(IsInOrder());
}

void CNxMessageChain::Append(CNxMessageChain&& other) noexcept {
    if (this == &other || other.m_size == 0) {
        if (this != &other) {
            other.Clear();
        }
        return;
    }
    DropUnusedSpace();
    m_size += std::exchange(other.m_size, 0);
    Link(std::exchange(other.m_head, nullptr), std::exchange(other.m_tail, nullptr));
    assert(IsInOrder());
}

void CNxMessageChain::Append(CNxDataBlock* data) {
    if (data == nullptr || data->GetSize() == 0) {
        return;
    }
    CNxMessageBlock* const block = new CNxMessageBlock(data, CNxMessageBlock::DUPLICATED);
    Write(*block, nullptr, data->GetSize());
    Append(Adopt(block));
}

void CNxMessageChain::AppendAdopted(const char* data, size_t size, void (*release)(void*),
                                    void* argument) {
    CNxAutoPtr<CNxDataBlock> adopted;
    try {
        adopted = new CAdoptedData(data, size, release, argument);
    } catch (const std::bad_alloc&) {
        if (release != nullptr) {
            release(argument);
        }
        throw;
    }
    Append(adopted.Get());
}

void CNxMessageChain::AppendIntegerOf(size_t width, std::uint64_t value, ENxByteOrder order) {
    char bytes[sizeof(value)];
    if (width > sizeof(bytes)) {
        return;
    }
    for (size_t i = 0; i < width; ++i) {
        bytes[GetPlace(i, width, order)] = static_cast<char>(value >> (8 * i));
    }
    Append({bytes, width});
}

char* CNxMessageChain::MakeSpace(size_t size) {
    size = std::max<size_t>(size, 1);
    if (GetSpaceSize() < size) {
        CNxMessageBlock* const block =
            MakeBlock(std::max(GetGrowth(m_size), RoundUp(size))).release();
        DropUnusedSpace();
        Link(block, block);
    }
    return m_tail->GetWritePtr();
}

void CNxMessageChain::Commit(size_t size) {
    size = std::min(size, GetSpaceSize());
    if (size != 0) {
        Write(*m_tail, nullptr, size);
        m_size += size;
    } else {
        DropUnusedSpace();
    }
    assert(IsInOrder());
}

// A last block without bytes. The walk is short: it is what one reader has not taken yet.
void CNxMessageChain::DropUnusedSpace() noexcept {
    if (m_size == 0) {
        Clear();
        return;
    }
    if (m_tail->GetLength() != 0) {
        return;
    }
    CNxMessageBlock* last = m_head;
    while (last->GetNext() != m_tail) {
        last = last->GetNext();
    }
    delete std::exchange(m_tail, last);
    m_tail->SetNext(nullptr);
}

void CNxMessageChain::Consume(size_t count) noexcept {
    if (count >= m_size) {
        Clear();
        return;
    }
    m_size -= count;
    // The blocks before it go at last: as in Clear.
    CNxMessageBlock* const first = m_head;
    CNxMessageBlock* last = nullptr;
    while (count >= m_head->GetLength()) {
        count -= m_head->GetLength();
        last = std::exchange(m_head, m_head->GetNext());
    }
    Skip(*m_head, count);
    if (last != nullptr) {
        last->SetNext(nullptr);
        first->DestroyChained();
    }
}

CNxMessageChain CNxMessageChain::Split(size_t count) {
    if (count >= m_size) {
        return std::move(*this);
    }
    CNxMessageChain front;
    // The blocks that go as they are, and the part of the next one.
    CNxMessageBlock* last = nullptr;
    CNxMessageBlock* cut = m_head;
    size_t rest = count;
    while (rest != 0 && rest >= cut->GetLength()) {
        rest -= cut->GetLength();
        last = std::exchange(cut, cut->GetNext());
    }
    if (rest != 0) {
        CNxMessageBlock* const part = MakeView(*cut, 0, rest).release();
        Skip(*cut, rest);
        front.Link(part, part);
    }
    if (last != nullptr) {
        last->SetNext(front.m_head);
        front.m_head = m_head;
        front.m_tail = front.m_tail != nullptr ? front.m_tail : last;
    }
    front.m_size = count;
    m_head = cut->ReclaimGarbage();
    m_size -= count;
    assert(IsInOrder() && front.IsInOrder());
    return front;
}

CNxMessageChain CNxMessageChain::Share(size_t offset, size_t count) const {
    CNxMessageChain shared;
    count = offset < m_size ? std::min(count, m_size - offset) : 0;
    const CNxMessageBlock* block = count != 0 ? FindBlock(m_head, offset) : nullptr;
    for (; shared.m_size < count; block = block->GetNext(), offset = 0) {
        const size_t n = std::min(block->GetLength() - offset, count - shared.m_size);
        if (n != 0) {
            CNxMessageBlock* const view = MakeView(*block, offset, n).release();
            shared.Link(view, view);
            shared.m_size += n;
        }
    }
    assert(shared.m_size == count);
    return shared;
}

size_t CNxMessageChain::Find(char byte, size_t from) const {
    return Find(std::string_view(&byte, 1), from);
}

size_t CNxMessageChain::Find(std::string_view text, size_t from) const {
    if (from > m_size || text.size() > m_size - from) {
        return c_notFound;
    }
    if (text.empty()) {
        return from;
    }
    size_t offset = from;
    const CNxMessageBlock* block = FindBlock(m_head, offset);
    for (size_t before = from - offset; block != nullptr; block = block->GetNext(), offset = 0) {
        const size_t found = FindInBlock(*block, offset, text);
        if (found != c_notFound) {
            return before + found;
        }
        before += block->GetLength();
    }
    return c_notFound;
}

size_t CNxMessageChain::Copy(void* to, size_t count, size_t offset) const {
    count = offset < m_size ? std::min(count, m_size - offset) : 0;
    char* at = static_cast<char*>(to);
    size_t rest = count;
    const CNxMessageBlock* block = rest != 0 ? FindBlock(m_head, offset) : nullptr;
    for (; rest != 0; block = block->GetNext(), offset = 0) {
        const size_t n = std::min(block->GetLength() - offset, rest);
        if (n != 0) {
            std::memcpy(at, block->GetReadPtr() + offset, n);
            at += n;
            rest -= n;
        }
    }
    return count;
}

bool CNxMessageChain::PeekIntegerOf(size_t width, std::uint64_t& value, size_t offset,
                                    ENxByteOrder order) const {
    unsigned char bytes[sizeof(value)];
    if (width == 0 || width > sizeof(bytes) || Copy(bytes, width, offset) != width) {
        return false;
    }
    value = 0;
    for (size_t i = 0; i < width; ++i) {
        value |= std::uint64_t{bytes[GetPlace(i, width, order)]} << (8 * i);
    }
    return true;
}

std::string_view CNxMessageChain::GetFront() const {
    return m_size != 0 ? std::string_view(m_head->GetReadPtr(), m_head->GetLength())
                       : std::string_view();
}

std::string_view CNxMessageChain::Flatten(size_t count) {
    count = std::min(count, m_size);
    if (count > GetFront().size()) {
        CNxMessageBlock* const flat = MakeBlock(RoundUp(count)).release();
        static_cast<void>(Copy(flat->GetWritePtr(), count));
        Write(*flat, nullptr, count);
        Consume(count);
        CNxMessageChain rest(std::move(*this));
        Link(flat, flat);
        m_size = count;
        Append(std::move(rest));
    }
    return GetFront().substr(0, count);
}

std::string CNxMessageChain::ToString() const {
    std::string bytes(m_size, '\0');
    static_cast<void>(Copy(bytes.data(), m_size));
    return bytes;
}

size_t CNxMessageChain::FillIov(iovec* iov, size_t maxCount) const {
    return m_size != 0 ? m_head->FillIov(iov, maxCount) : 0;
}
