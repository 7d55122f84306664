#include <kv_server/KvStore.h>

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <utility>

namespace kv_server {

namespace {

// Matches one byte against the pattern's element at `position`, which goes after that element.
bool MatchSet(std::string_view pattern, std::size_t& position, char byte) {
    std::size_t i = position + 1;
    const bool negated = i < pattern.size() && pattern[i] == '^';
    i += negated ? 1 : 0;
    bool found = false;
    for (; i < pattern.size() && pattern[i] != ']'; ++i) {
        if (pattern[i] == '\\' && i + 1 < pattern.size()) {
            ++i;
        }
        const auto low = static_cast<unsigned char>(pattern[i]);
        auto high = low;
        if (i + 2 < pattern.size() && pattern[i + 1] == '-' && pattern[i + 2] != ']') {
            i += 2;
            high = static_cast<unsigned char>(pattern[i]);
        }
        const auto value = static_cast<unsigned char>(byte);
        found = found || (low <= value && value <= high) || (high <= value && value <= low);
    }
    position = i + 1;  // one beyond the end for a set that is not closed, which is taken as closed
    return found != negated;
}

bool MatchOne(std::string_view pattern, std::size_t& position, char byte) {
    const char element = pattern[position];
    if (element == '[') {
        return MatchSet(pattern, position, byte);
    }
    const bool escaped = element == '\\' && position + 1 < pattern.size();
    const char literal = escaped ? pattern[position + 1] : element;
    position += escaped ? 2 : 1;
    return literal == byte || (!escaped && element == '?');
}

}  // namespace

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

void KvStore::Set(std::string_view key, Value value, std::int64_t expiry) {
    auto found = FindLiving(key);
    const bool isNew = found == m_entries.end();
    if (isNew) {
        found = m_entries.emplace(m_key, Entry{std::move(value), std::nullopt}).first;
    }
    if (expiry > c_never) {
        try {
            Expire(found, expiry);
        } catch (const std::bad_alloc&) {
            if (isNew) {
                Erase(found);
            }
            throw;
        }
    } else if (expiry == c_never) {
        DropExpiry(found->second);
    }
    if (!isNew) {
        found->second.value = std::move(value);
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
    Expire(found, time);
    return true;
}

void KvStore::Expire(Entries::iterator found, std::int64_t time) {
    const auto expiry = m_expiries.emplace(time, &found->first);
    DropExpiry(found->second);
    found->second.expiry = expiry;
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
        const auto found = m_entries.find(*m_expiries.begin()->second);
        assert(found != m_entries.end() && found->second.expiry == m_expiries.begin());
        Erase(found);
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
    assert(m_expiries.size() <= m_entries.size());
}

bool MatchesGlob(std::string_view pattern, std::string_view text, std::size_t& steps) {
    std::size_t p = 0;
    std::size_t t = 0;
    // Where to go on when the match fails: the last star takes one byte more. Earlier stars need
    // not be tried again.
    std::size_t afterStar = std::string_view::npos;
    std::size_t starTaken = 0;
    while (t < text.size()) {
        const std::size_t looked = p;
        bool goesOn = true;
        if (p < pattern.size() && pattern[p] == '*') {
            afterStar = ++p;
            if (p == pattern.size()) {
                return true;
            }
            starTaken = t;
        } else if (p < pattern.size() && MatchOne(pattern, p, text[t])) {
            ++t;
        } else {
            goesOn = false;
        }
        steps -= std::min(steps, std::max<std::size_t>(p - looked, 1));
        if (steps == 0 || (!goesOn && afterStar == std::string_view::npos)) {
            return false;
        }
        if (!goesOn) {
            p = afterStar;
            t = ++starTaken;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') {
        ++p;
    }
    return p >= pattern.size();
}

}  // namespace kv_server
