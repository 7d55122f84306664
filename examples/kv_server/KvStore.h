// The keys and their values, some of which expire.
#pragma once

#include <nx/buffer/CNxDataBlock.h>
#include <nx/buffer/CNxMessageChain.h>
#include <nx/foundation/CNxAutoPtr.h>
#include <sodium/crypto_shorthash.h>
#include <tsl/robin_set.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace kv_server {

// A stored value, in a counted block: goes out to clients without being copied, even when it is
// replaced meanwhile. Small ones are cheaper to copy.
class Value {
public:
    Value() = default;
    // Throws std::bad_alloc.
    explicit Value(std::string_view bytes);

    std::string_view GetBytes() const {
        return m_block ? std::string_view(m_block->GetData(), m_block->GetSize()) : "";
    }
    void ShareTo(CNxMessageChain& chain) const { chain.Append(m_block.Get()); }

private:
    CNxAutoPtr<CNxDataBlock> m_block;
};

struct Entry {
    std::string key;
    Value value;
    std::int64_t expiry;
};

// The hash of the keys, itself keyed at random, each anew: without that key nobody finds texts that
// collide more often than by chance.
class KeyHash {
public:
    KeyHash() { crypto_shorthash_keygen(m_key); }
    std::size_t operator()(std::string_view key) const;
    std::size_t operator()(const std::unique_ptr<Entry>& entry) const {
        return (*this)(entry->key);
    }

private:
    unsigned char m_key[crypto_shorthash_KEYBYTES];
};

// Knows no clock: its owner tells it the time, in milliseconds from any start. A key whose time has
// come is gone for every operation that names it; its memory is freed then or by RemoveExpired.
// What needs memory and finds none throws std::bad_alloc and has changed nothing.
// Belongs to one thread at a time.
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
    void Set(std::string_view key, std::string_view value, std::int64_t expiry = c_never);

    // False when there is no such key.
    bool Delete(std::string_view key);
    bool SetExpiry(std::string_view key, std::int64_t time);

    // When the key expires; nothing for a key that is there for good, or is not there.
    std::optional<std::int64_t> GetExpiry(std::string_view key);

    void Clear();

    // Includes keys that have expired and were not removed yet.
    std::size_t GetSize() const { return m_entries.size(); }
    std::size_t GetExpiringCount() const { return m_expiries.size(); }

    // Removes at most `limit` expired keys.
    void RemoveExpired(std::size_t limit);

    // Calls `visit(key)` for every key that has not expired, until it returns false. It must not
    // change the store.
    template <class Visit>
    void ForEachKey(Visit visit) const {
        for (const auto& entry : m_entries) {
            if (!IsExpired(*entry) && !visit(std::string_view(entry->key))) {
                return;
            }
        }
    }

private:
    struct SameKey {
        using is_transparent = void;

        bool operator()(const std::unique_ptr<Entry>& entry, std::string_view key) const {
            return entry->key == key;
        }
        bool operator()(const std::unique_ptr<Entry>& entry,
                        const std::unique_ptr<Entry>& other) const {
            return entry->key == other->key;
        }
    };
    // Clients choose the keys: how these spread must not be known to them. Where there is no memory
    // it stays as it is, which not every fast table promises.
    using Entries = tsl::robin_set<std::unique_ptr<Entry>, KeyHash, SameKey,
                                   std::allocator<std::unique_ptr<Entry>>, true>;

    bool IsExpired(const Entry& entry) const {
        return entry.expiry != c_never && entry.expiry <= m_now;
    }
    Entry* FindLiving(std::string_view key);
    void Expire(Entry& entry, std::int64_t time);
    void Erase(const Entry& entry);

    std::int64_t m_now = 0;
    Entries m_entries;
    // Those in m_entries that expire; they stay where they are.
    std::set<std::pair<std::int64_t, const Entry*>> m_expiries;
};

// Whether the text matches the pattern as a whole: '*' any bytes, '?' one byte, [abc], [a-z] and
// [^a] one of (none of) these, '\' takes the next byte literally. Bytes, no locale.
//
// BEWARE: takes up to the product of the two sizes in steps. So each byte of the pattern that is
// looked at takes one off `steps`; when they are used up, `steps` is 0 and the result is false.
bool MatchesGlob(std::string_view pattern, std::string_view text, std::size_t& steps);

}  // namespace kv_server
