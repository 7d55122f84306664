// Chains of message blocks against a literal model: offsets into shared strings. Random operations,
// and after each one every chain must look like its model, block by block.
#include <algorithm>
#include <deque>
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
    bool wrapsCallerMemory;
    bool duplicated;

    std::string Unread() const { return storage->substr(read, write - read); }
    size_t Space() const { return storage->size() - write; }

    CPiece Duplicate() const {
        CPiece copy{storage, read, write, false, true};
        if (wrapsCallerMemory) {
            copy.storage = std::make_shared<std::string>(*storage);
        }
        return copy;
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
    ~CWorld() {
        for (CChain& chain : m_chains) {
            Free(chain);
        }
    }

    void Step() {
        while (m_chains.size() < 2 || Pick(4) == 0) {
            AddBlock();
        }
        CChain& chain = m_chains[Pick(m_chains.size())];
        switch (Pick(9)) {
            case 0:
                return Write(chain);
            case 1:
            case 2:
                return Read(chain);
            case 3:
                return AdvanceWrite(chain);
            case 4:
                return Disjoint(chain);
            case 5:
                return Duplicate(chain);
            case 6:
                return Reclaim(chain);
            case 7:
                return Join();
            default:
                return m_chains.size() > 4 ? Free(chain) : Write(chain);
        }
    }

    void Check() {
        m_chains.erase(std::remove_if(m_chains.begin(), m_chains.end(),
                                      [](const CChain& chain) { return chain.head == nullptr; }),
                       m_chains.end());
        for (const CChain& chain : m_chains) {
            CheckChain(chain);
        }
    }

private:
    size_t Pick(size_t below) {
        return std::uniform_int_distribution<size_t>(0, below - 1)(m_random);
    }

    std::string Bytes(size_t count) {
        std::string bytes(count, ' ');
        for (char& byte : bytes) {
            byte = static_cast<char>('a' + Pick(26));
        }
        return bytes;
    }

    // Of each kind, with all its storage set, in front of or behind a chain or on its own.
    void AddBlock() {
        const std::string bytes = Bytes(Pick(12));
        const size_t written = Pick(bytes.size() + 1);
        CPiece piece{std::make_shared<std::string>(bytes), 0, written, false, false};
        Block* block = nullptr;
        switch (Pick(3)) {
            case 0:
                m_memory.push_back(bytes);
                block = Keep(new Block(bytes.size(), m_memory.back().data(), 0, written));
                piece.wrapsCallerMemory = true;
                break;
            case 1:
                block = Keep(new Block(bytes.size(), nullptr, 0, written));
                break;
            default:
                block = new Block(bytes.size(), nullptr, Block::DUPLICATED, written);
                piece.duplicated = true;
        }
        bytes.copy(block->GetReadPtr(), bytes.size());
        if (m_chains.size() < 3) {
            m_chains.push_back({block, {piece}});
            return;
        }
        CChain& chain = m_chains[Pick(m_chains.size())];
        chain.head->Append(block);
        chain.pieces.push_back(piece);
    }

    Block* Keep(Block* block) {
        m_kept.emplace_back(block);
        return block;
    }

    void Write(CChain& chain) {
        const size_t index = Pick(chain.pieces.size());
        Block* block = chain.head;
        for (size_t i = 0; i < index; ++i) {
            block = block->GetNext();
        }
        CPiece& piece = chain.pieces[index];
        const std::string bytes = Bytes(Pick(8));
        const size_t fits = std::min(bytes.size(), piece.Space());
        unsigned long n = 99;
        EXPECT_EQ(block->Write(bytes.data(), bytes.size(), &n),
                  fits < bytes.size() ? NX_ERROR_PARTIAL_DATA : NX_OK);
        EXPECT_EQ(n, fits);
        piece.storage->replace(piece.write, fits, bytes, 0, fits);
        piece.write += fits;
    }

    void Read(CChain& chain) {
        const std::string unread = chain.Unread();
        const size_t count = Pick(unread.size() + 5);
        const int advance = static_cast<int>(Pick(3));
        const bool copy = Pick(2) == 0;
        std::string got(count, '?');
        unsigned long n = 99;
        EXPECT_EQ(chain.head->Read(copy ? got.data() : nullptr, count, &n, advance),
                  count > unread.size() ? NX_ERROR_PARTIAL_DATA : NX_OK);
        EXPECT_EQ(n, std::min(count, unread.size()));
        if (copy) {
            EXPECT_EQ(got.substr(0, n), unread.substr(0, count));
        }
        size_t left = advance != 0 ? n : 0;
        for (CPiece& piece : chain.pieces) {
            const size_t part = std::min(left, piece.write - piece.read);
            piece.read += part;
            left -= part;
        }
    }

    void AdvanceWrite(CChain& chain) {
        const size_t count = Pick(20);
        size_t left = count;
        for (CPiece& piece : chain.pieces) {
            if (piece.read != 0) {
                break;
            }
            const size_t part = std::min(left, piece.Space());
            piece.write += part;
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
            const size_t length = chain.pieces[i].write - chain.pieces[i].read;
            if (length >= rest && length + rest != 0) {
                break;
            }
            rest -= length;
        }
        if (i < chain.pieces.size()) {
            CPiece& cut = chain.pieces[i];
            if (rest < cut.write - cut.read) {
                tail.pieces.push_back(cut.Duplicate());
                tail.pieces.back().read += rest;
                cut.write = cut.read + rest;
            }
            for (size_t k = i + 1; k < chain.pieces.size(); ++k) {
                const CPiece& piece = chain.pieces[k];
                tail.pieces.push_back(piece.duplicated ? piece : piece.Duplicate());
            }
            chain.pieces.resize(i + 1);
        }
        ASSERT_EQ(tail.head == nullptr, tail.pieces.empty());
        m_chains.push_back(tail);
    }

    void Duplicate(const CChain& chain) {
        CChain copy{chain.head->DuplicateChained(), {}};
        for (const CPiece& piece : chain.pieces) {
            copy.pieces.push_back(piece.Duplicate());
        }
        m_chains.push_back(copy);
    }

    void Reclaim(CChain& chain) {
        chain.head = chain.head->ReclaimGarbage();
        const auto first =
            std::find_if(chain.pieces.begin(), chain.pieces.end(),
                         [](const CPiece& piece) { return piece.read != piece.write; });
        chain.pieces.erase(chain.pieces.begin(), first);
        EXPECT_EQ(chain.head == nullptr, chain.pieces.empty());
    }

    void Join() {
        CChain tail = m_chains.back();
        m_chains.pop_back();
        CChain& chain = m_chains[Pick(m_chains.size())];
        chain.head->Append(tail.head);
        chain.pieces.insert(chain.pieces.end(), tail.pieces.begin(), tail.pieces.end());
    }

    void Free(CChain& chain) {
        if (std::all_of(chain.pieces.begin(), chain.pieces.end(),
                        [](const CPiece& piece) { return piece.duplicated; })) {
            chain.head->DestroyChained();
        } else {
            for (Block* block = chain.head; block != nullptr;) {
                Block* next = block->GetNext();
                if ((block->GetFlags() & Block::DUPLICATED) != 0) {
                    delete block;
                }
                block = next;
            }
        }
        chain.head = nullptr;
    }

    static void CheckChain(const CChain& chain) {
        const Block* block = chain.head;
        unsigned long space = 0;
        std::vector<std::string> filled;
        for (const CPiece& piece : chain.pieces) {
            ASSERT_NE(block, nullptr);
            ASSERT_EQ(block->GetLength(), piece.write - piece.read);
            ASSERT_EQ(block->GetCapacity(), piece.storage->size());
            ASSERT_EQ(block->GetSpace(), piece.Space());
            ASSERT_EQ(block->GetFlags(), (piece.wrapsCallerMemory ? Block::DONT_DELETE : 0) |
                                             (piece.duplicated ? Block::DUPLICATED : 0));
            space += piece.Space();
            if (block->GetLength() != 0) {
                filled.push_back(piece.Unread());
            }
            block = block->GetNext();
        }
        ASSERT_EQ(block, nullptr);
        const std::string unread = chain.Unread();
        const CNxString flat = chain.head->FlattenChained();
        ASSERT_EQ(std::string(flat.data(), flat.size()), unread);
        ASSERT_EQ(chain.head->GetChainedLength(), unread.size());
        ASSERT_EQ(chain.head->GetChainedSpace(), space);
        ASSERT_EQ(chain.head->GetChainedCapacity(), space);
        iovec iov[4];
        const unsigned long n = chain.head->FillIov(iov, 4);
        ASSERT_EQ(n, std::min<size_t>(filled.size(), 4));
        for (unsigned long i = 0; i < n; ++i) {
            ASSERT_EQ(std::string(static_cast<char*>(iov[i].iov_base), iov[i].iov_len), filled[i]);
        }
    }

    std::mt19937 m_random;
    std::deque<std::string> m_memory;            // of the blocks that wrap memory of the caller
    std::vector<std::unique_ptr<Block>> m_kept;  // blocks that no chain owns
    std::vector<CChain> m_chains;
};

}  // namespace

TEST(CNxMessageBlockModel, ChainsDoWhatTheirModelDoesUnderRandomOperations) {
    for (unsigned seed = 1; seed <= 40; ++seed) {
        CWorld world(seed);
        for (int step = 0; step < 500; ++step) {
            world.Step();
            world.Check();
            if (HasFailure()) {
                FAIL() << "seed " << seed << ", step " << step;
            }
        }
    }
}
