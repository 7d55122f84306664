// A stored value.
#pragma once

#include <kv_server/BlockChain.h>
#include <nx/buffer/CNxDataBlock.h>
#include <nx/foundation/CNxAutoPtr.h>

#include <cstddef>
#include <new>
#include <string>
#include <string_view>

namespace kv_server {

// Large values live in counted blocks, which go out to clients without being copied, even when the
// value is replaced meanwhile; small ones are cheaper to copy. Belongs to the store's thread.
class Value {
public:
    // Throws std::bad_alloc.
    explicit Value(std::string_view bytes) {
        if (bytes.size() < c_sharedFrom) {
            m_small = bytes;
            return;
        }
        CNxDataBlock* block = nullptr;
        if (CNxDataBlock::CreateInstance(block, bytes.size(), bytes.data()) != NX_OK) {
            throw std::bad_alloc();
        }
        m_large = CNxAutoPtr<CNxDataBlock>::Adopt(block);
    }

    std::string_view GetBytes() const {
        return m_large ? std::string_view(m_large->GetData(), m_large->GetSize()) : m_small;
    }

    void AppendTo(BlockChain& chain) const {
        if (m_large) {
            chain.Share(m_large.Get());
        } else {
            chain.Write(m_small);
        }
    }

private:
    static constexpr std::size_t c_sharedFrom = 4096;

    std::string m_small;
    CNxAutoPtr<CNxDataBlock> m_large;
};

}  // namespace kv_server
