#include <kv_server/KvStore.h>

#include <utility>

namespace kv_server {

KvStore::Entries::iterator KvStore::FindLiving(std::string_view key) {
    m_key = key;
    const auto found = m_entries.find(m_key);
    if (found != m_entries.end() && IsExpired(found->second)) {
        Erase(found);
        return m_entries.end();
    }
    return found;
}

const Value* KvStore::Find(std::string_view key) {
    const auto found = FindLiving(key);
    return found != m_entries.end() ? &found->second.value : nullptr;
}

void KvStore::Set(std::string_view key, Value value, bool keepExpiry) {
    const auto found = FindLiving(key);
    if (found == m_entries.end()) {
        m_entries.emplace(m_key, Entry{std::move(value), std::nullopt});
        return;
    }
    found->second.value = std::move(value);
    if (!keepExpiry) {
        DropExpiry(found->second);
    }
}

bool KvStore::Delete(std::string_view key) {
    const auto found = FindLiving(key);
    if (found == m_entries.end()) {
        return false;
    }
    Erase(found);
    return true;
}

bool KvStore::SetExpiry(std::string_view key, std::int64_t time) {
    const auto found = FindLiving(key);
    if (found == m_entries.end()) {
        return false;
    }
    DropExpiry(found->second);
    found->second.expiry = m_expiries.emplace(time, &found->first);
    return true;
}

std::optional<std::int64_t> KvStore::GetExpiry(std::string_view key) {
    const auto found = FindLiving(key);
    if (found == m_entries.end() || !found->second.expiry.has_value()) {
        return std::nullopt;
    }
    return (*found->second.expiry)->first;
}

void KvStore::Clear() {
    m_entries.clear();
    m_expiries.clear();
}

std::optional<std::int64_t> KvStore::GetNextExpiry() const {
    return m_expiries.empty() ? std::nullopt : std::optional(m_expiries.begin()->first);
}

std::size_t KvStore::RemoveExpired(std::size_t limit) {
    std::size_t removed = 0;
    while (removed < limit && !m_expiries.empty() && m_expiries.begin()->first <= m_now) {
        Erase(m_entries.find(*m_expiries.begin()->second));
        ++removed;
    }
    return removed;
}

void KvStore::DropExpiry(Entry& entry) {
    if (entry.expiry.has_value()) {
        m_expiries.erase(*entry.expiry);
        entry.expiry.reset();
    }
}

void KvStore::Erase(Entries::iterator found) {
    DropExpiry(found->second);
    m_entries.erase(found);
}

}  // namespace kv_server
