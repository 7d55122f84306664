// The keys and their values, some of which expire.
#pragma once

#include <kv_server/Value.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace kv_server {

// Knows no clock: its owner tells it the time, in milliseconds from any start. A key whose time has
// come is gone for every operation that names it; its memory is freed then or by RemoveExpired.
// Belongs to one thread.
class KvStore {
public:
    void SetTime(std::int64_t now) { m_now = now; }
    std::int64_t GetTime() const { return m_now; }

    // Null when there is no such key. Good until the key is changed.
    const Value* Find(std::string_view key);

    // An expiry that the key had is dropped unless `keepExpiry`.
    void Set(std::string_view key, Value value, bool keepExpiry = false);

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

    // Removes at most `limit` expired keys, and answers how many.
    std::size_t RemoveExpired(std::size_t limit);

    // Calls `visit(key)` for every key that has not expired. It must not change the store.
    template <class Visit>
    void ForEachKey(Visit visit) const {
        for (const auto& [key, entry] : m_entries) {
            if (!IsExpired(entry)) {
                visit(std::string_view(key));
            }
        }
    }

private:
    using Expiries = std::multimap<std::int64_t, const std::string*>;
    struct Entry {
        Value value;
        std::optional<Expiries::iterator> expiry;
    };
    using Entries = std::unordered_map<std::string, Entry>;

    bool IsExpired(const Entry& entry) const {
        return entry.expiry.has_value() && (*entry.expiry)->first <= m_now;
    }
    Entries::iterator FindLiving(std::string_view key);
    void DropExpiry(Entry& entry);
    void Erase(Entries::iterator found);

    std::int64_t m_now = 0;
    Entries m_entries;
    Expiries m_expiries;  // to the keys in m_entries, which stay where they are
    std::string m_key;    // a look-up needs a string; this one keeps its memory
};

}  // namespace kv_server
