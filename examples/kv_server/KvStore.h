// The keys and their values, some of which expire.
#pragma once

#include <common/BlockChain.h>
#include <kv_server/KeyHash.h>
#include <nx/buffer/CNxDataBlock.h>
#include <nx/foundation/CNxAutoPtr.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace kv_server {

// A stored value.
//
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

    void AppendTo(examples::BlockChain& chain, std::string_view before,
                  std::string_view after) const {
        if (m_large) {
            chain.Share(before, m_large.Get(), after);
        } else {
            chain.Write({before, m_small, after});
        }
    }

private:
    static constexpr std::size_t c_sharedFrom = 4096;

    std::string m_small;
    CNxAutoPtr<CNxDataBlock> m_large;
};

// Knows no clock: its owner tells it the time, in milliseconds from any start. A key whose time has
// come is gone for every operation that names it; its memory is freed then or by RemoveExpired.
// What needs memory and finds none throws std::bad_alloc and has changed nothing.
// Belongs to one thread.
class KvStore {
public:
    // What Set makes of the expiry, where it is not given a time.
    static constexpr std::int64_t c_never = 0;
    static constexpr std::int64_t c_keepExpiry = -1;

    void SetTime(std::int64_t now) { m_now = now; }
    std::int64_t GetTime() const { return m_now; }

    // Null when there is no such key. Good until the key is changed.
    const Value* Find(std::string_view key);

    // The key expires at the time `expiry`, which is positive.
    void Set(std::string_view key, Value value, std::int64_t expiry = c_never);

    // False when there is no such key.
    bool Delete(std::string_view key);
    bool SetExpiry(std::string_view key, std::int64_t time);

    // When the key expires; nothing for a key that is there for good, or is not there.
    std::optional<std::int64_t> GetExpiry(std::string_view key);

    void Clear();

    // Includes keys that have expired and were not removed yet.
    std::size_t GetSize() const { return m_entries.size(); }
    std::size_t GetExpiringCount() const { return m_expiries.size(); }

    // When the first key expires; nothing when none does.
    std::optional<std::int64_t> GetNextExpiry() const;

    // Removes at most `limit` expired keys, and returns how many.
    std::size_t RemoveExpired(std::size_t limit);

    // Calls `visit(key)` for every key that has not expired, until it returns false. It must not
    // change the store.
    template <class Visit>
    void ForEachKey(Visit visit) const {
        for (const auto& [key, entry] : m_entries) {
            if (!IsExpired(entry) && !visit(std::string_view(key))) {
                return;
            }
        }
    }

private:
    using Expiries = std::multimap<std::int64_t, const std::string*>;
    struct Entry {
        Value value;
        std::optional<Expiries::iterator> expiry;
    };
    // Clients choose the keys: how these spread must not be known to them.
    using Entries = std::unordered_map<std::string, Entry, KeyHash>;

    bool IsExpired(const Entry& entry) const {
        return entry.expiry.has_value() && (*entry.expiry)->first <= m_now;
    }
    Entries::iterator FindLiving(std::string_view key);
    void Expire(Entries::iterator found, std::int64_t time);
    void DropExpiry(Entry& entry);
    void Erase(Entries::iterator found);

    std::int64_t m_now = 0;
    Entries m_entries;
    Expiries m_expiries;  // to the keys in m_entries, which stay where they are
    std::string m_key;    // a look-up needs a string; this one keeps its memory
};

// Whether the text matches the pattern as a whole: '*' any bytes, '?' one byte, [abc], [a-z] and
// [^a] one of (none of) these, '\' takes the next byte literally. Bytes, no locale.
//
// BEWARE: takes up to the product of the two sizes in steps. So each byte of the pattern that is
// looked at takes one off `steps`; when they are used up, `steps` is 0 and the result is false.
bool MatchesGlob(std::string_view pattern, std::string_view text, std::size_t& steps);

}  // namespace kv_server
