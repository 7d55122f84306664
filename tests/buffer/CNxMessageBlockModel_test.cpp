// Chains of message blocks against a literal model: offsets into shared strings. Random operations,
// and after each one every chain must look like its model, block by block.
#include <algorithm>
#include <deque>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nx/buffer/CNxMessageBlock.h>

namespace {

using Block = CNxMessageBlock;

struct CPiece {
    std::shared_ptr<std::string> storage;  // shared exactly where blocks share theirs
    size_t read;
    size_t write;
    unsigned int flags;

    size_t Length() const { return write - read; }
    std::string Unread() const { return storage->substr(read, Length()); }
    size_t Space() const { return storage->size() - write; }

    CPiece Duplicate() const {
        const bool isCopied = flags == Block::DONT_DELETE;
        return {isCopied ? std::make_shared<std::string>(*storage) : storage, read, write,
                Block::DUPLICATED};
    }
};

struct CChain {
    Block* head;
    std::vector<CPiece> pieces;

    std::string Unread() const {
        std::string bytes;
        for (const CPiece& piece : pieces) {
            bytes += piece.Unread();
        }
        return bytes;
    }
};

class CWorld {
public:
    explicit CWorld(unsigned seed) : m_random(seed) {}
    ~CWorld() { std::for_each(m_chains.begin(), m_chains.end(), Free); }

    void Step() {
        using Operation = void (CWorld::*)(CChain&);
        constexpr Operation c_operations[] = {
            &CWorld::Write,    &CWorld::Write,     &CWorld::Read,    &CWorld::AdvanceWrite,
            &CWorld::Disjoint, &CWorld::Duplicate, &CWorld::Reclaim, &CWorld::Join,
            &CWorld::Join,     &CWorld::Join,      &CWorld::Join};
        while (m_chains.size() < 2 || Pick(4) == 0) {
            AddBlock();
        }
        if (m_chains.size() > 5) {
            Free(m_chains.front());
            m_chains.pop_front();
        }
        (this->*c_operations[Pick(std::size(c_operations))])(AnyChain());
        m_chains.remove_if([](const CChain& chain) { return chain.head == nullptr; });
        std::for_each(m_chains.begin(), m_chains.end(), Check);
    }

private:
    size_t Pick(size_t below) {
        return std::uniform_int_distribution<size_t>(0, below - 1)(m_random);
    }
    CChain& AnyChain() {
        return *std::next(m_chains.begin(), static_cast<long>(Pick(m_chains.size())));
    }

    std::string Bytes(size_t count) {
        return std::string("abcdefghijklmnopqrstuvwxyz").substr(Pick(14), count);
    }

    // Of any kind.
    void AddBlock() {
        const std::string bytes = Bytes(Pick(12));
        const size_t written = Pick(bytes.size() + 1);
        const unsigned int flags[] = {0, Block::DUPLICATED, Block::DONT_DELETE};
        CPiece piece{std::make_shared<std::string>(bytes), 0, written, flags[Pick(3)]};
        char* const memory =
            piece.flags == Block::DONT_DELETE ? m_memory.emplace_back(bytes).data() : nullptr;
        auto* const block =
            new Block(bytes.size(), memory, piece.flags & Block::DUPLICATED, written);
        bytes.copy(block->GetReadPtr(), bytes.size());
        if (piece.flags != Block::DUPLICATED) {
            m_kept.emplace_back(block);
        }
        m_chains.push_back({block, {piece}});
    }

    void Write(CChain& chain) {
        CPiece& piece = chain.pieces.front();
        const std::string bytes = Bytes(Pick(8));
        const size_t fits = std::min(bytes.size(), piece.Space());
        unsigned long n = 99;
        EXPECT_EQ(chain.head->Write(bytes.data(), bytes.size(), &n),
                  fits < bytes.size() ? NX_ERROR_PARTIAL_DATA : NX_OK);
        EXPECT_EQ(n, fits);
        piece.storage->replace(piece.write, fits, bytes, 0, fits);
        piece.write += fits;
    }

    void Read(CChain& chain) {
        const std::string unread = chain.Unread();
        const size_t count = Pick(unread.size() + 5);
        const int advance = static_cast<int>(Pick(3));
        std::string got(count, '?');
        unsigned long n = 99;
        EXPECT_EQ(chain.head->Read(got.data(), count, &n, advance),
                  count > unread.size() ? NX_ERROR_PARTIAL_DATA : NX_OK);
        EXPECT_EQ(n, std::min(count, unread.size()));
        EXPECT_EQ(got.substr(0, n), unread.substr(0, count));
        size_t left = advance != 0 ? n : 0;
        for (CPiece& piece : chain.pieces) {
            const size_t part = std::min(left, piece.Length());
            piece.read += part;
            left -= part;
        }
    }

    void AdvanceWrite(CChain& chain) {
        const size_t count = Pick(20);
        size_t left = count;
        for (size_t i = 0; i < chain.pieces.size() && chain.pieces[i].read == 0; ++i) {
            const size_t part = std::min(left, chain.pieces[i].Space());
            chain.pieces[i].write += part;
            left -= part;
        }
        unsigned long n = 99;
        EXPECT_EQ(chain.head->AdvanceChainedWritePtr(count, &n),
                  count == 0 || left != 0 ? NX_ERROR_PARTIAL_DATA : NX_OK);
        EXPECT_EQ(n, count - left);
    }

    // The model cuts at the first block that reaches the offset; empty ones do not when it is 0.
    void Disjoint(CChain& chain) {
        size_t rest = Pick(chain.Unread().size() + 3);
        CChain tail{chain.head->Disjoint(rest), {}};
        size_t i = 0;
        for (; i < chain.pieces.size(); ++i) {
            const size_t length = chain.pieces[i].Length();
            if (length >= rest && length + rest != 0) {
                break;
            }
            rest -= length;
        }
        if (i < chain.pieces.size()) {
            CPiece& cut = chain.pieces[i];
            if (rest < cut.Length()) {
                tail.pieces.push_back(cut.Duplicate());
                tail.pieces.back().read += rest;
                cut.write = cut.read + rest;
            }
            for (size_t k = i + 1; k < chain.pieces.size(); ++k) {
                const CPiece& piece = chain.pieces[k];
                tail.pieces.push_back(piece.flags == Block::DUPLICATED ? piece : piece.Duplicate());
            }
            chain.pieces.resize(i + 1);
        }
        ASSERT_EQ(tail.head == nullptr, tail.pieces.empty());
        m_chains.push_back(tail);
    }

    void Duplicate(CChain& chain) {
        CChain copy{chain.head->DuplicateChained(), {}};
        for (const CPiece& piece : chain.pieces) {
            copy.pieces.push_back(piece.Duplicate());
        }
        m_chains.push_back(copy);
    }

    void Reclaim(CChain& chain) {
        chain.head = chain.head->ReclaimGarbage();
        const auto first = std::find_if(chain.pieces.begin(), chain.pieces.end(),
                                        [](const CPiece& piece) { return piece.Length() != 0; });
        chain.pieces.erase(chain.pieces.begin(), first);
        EXPECT_EQ(chain.head == nullptr, chain.pieces.empty());
    }

    void Join(CChain& chain) {
        CChain& tail = m_chains.back();
        if (&tail != &chain) {
            chain.head->Append(tail.head);
            chain.pieces.insert(chain.pieces.end(), tail.pieces.begin(), tail.pieces.end());
            m_chains.pop_back();
        }
    }

    static void Free(CChain& chain) {
        for (Block* block = chain.head; block != nullptr;) {
            Block* const next = block->GetNext();
            if ((block->GetFlags() & Block::DUPLICATED) != 0) {
                delete block;
            }
            block = next;
        }
    }

    static void Check(const CChain& chain) {
        const Block* block = chain.head;
        unsigned long space = 0;
        std::vector<std::string> filled;
        for (const CPiece& piece : chain.pieces) {
            ASSERT_NE(block, nullptr);
            ASSERT_EQ(block->GetLength(), piece.Length());
            ASSERT_EQ(block->GetCapacity(), piece.storage->size());
            ASSERT_EQ(block->GetFlags(), piece.flags);
            space += piece.Space();
            if (piece.Length() != 0) {
                filled.push_back(piece.Unread());
            }
            block = block->GetNext();
        }
        ASSERT_EQ(block, nullptr);
        ASSERT_EQ(chain.head->FlattenChained().c_str(), chain.Unread());
        ASSERT_EQ(chain.head->GetChainedLength(), chain.Unread().size());
        ASSERT_EQ(chain.head->GetChainedSpace(), space);
        iovec iov[4];
        filled.resize(std::min<size_t>(filled.size(), 4));
        ASSERT_EQ(chain.head->FillIov(iov, 4), filled.size());
        for (size_t i = 0; i < filled.size(); ++i) {
            ASSERT_EQ(std::string(static_cast<char*>(iov[i].iov_base), iov[i].iov_len), filled[i]);
        }
    }

    std::mt19937 m_random;
    std::deque<std::string> m_memory;            // of the blocks that wrap memory of the caller
    std::vector<std::unique_ptr<Block>> m_kept;  // blocks that no chain owns
    std::list<CChain> m_chains;
};

}  // namespace

TEST(CNxMessageBlockModel, ChainsDoWhatTheirModelDoesUnderRandomOperations) {
    for (unsigned seed = 1; seed <= 40; ++seed) {
        CWorld world(seed);
        for (int step = 0; step < 500; ++step) {
            world.Step();
            if (HasFailure()) {
                FAIL() << "seed " << seed << ", step " << step;
            }
        }
    }
}
