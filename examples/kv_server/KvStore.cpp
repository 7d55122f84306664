#include <kv_server/KvStore.h>

#include <algorithm>
#include <cassert>
#include <new>

namespace kv_server {

namespace {

constexpr std::size_t c_sharedFrom = 4096;

// More that is not used is given back.
constexpr std::size_t c_keptCapacity = 64;

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

void Value::Set(std::string_view bytes) {
    if (bytes.size() >= c_sharedFrom) {
        CNxDataBlock* block = nullptr;
        if (CNxDataBlock::CreateInstance(block, bytes.size(), bytes.data()) != NX_OK) {
            throw std::bad_alloc();
        }
        m_large = CNxAutoPtr<CNxDataBlock>::Adopt(block);
        m_small = std::string();
        return;
    }
    // Mostly it fits where the last one was.
    if (m_small.capacity() <= 2 * bytes.size() + c_keptCapacity) {
        m_small.assign(bytes);
    } else {
        m_small = std::string(bytes);
    }
    m_large = nullptr;
}

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

void KvStore::Set(std::string_view key, std::string_view value, std::int64_t expiry) {
    auto found = FindLiving(key);
    const bool isNew = found == m_entries.end();
    if (!isNew && (expiry == c_keepExpiry || expiry == found->second.expiry)) {
        found->second.value.Set(value);
        return;
    }
    Value made;
    made.Set(value);
    if (isNew) {
        found = m_entries.emplace(m_key, Entry()).first;
    }
    try {
        Expire(found, std::max(expiry, c_never));
    } catch (const std::bad_alloc&) {
        if (isNew) {
            m_entries.erase(found);
        }
        throw;
    }
    found->second.value = std::move(made);
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

// Or never.
void KvStore::Expire(Entries::iterator found, std::int64_t time) {
    std::int64_t& expiry = found->second.expiry;
    if (time == expiry) {
        return;
    }
    if (time != c_never) {
        m_expiries.emplace(time, &found->first);
    }
    m_expiries.erase({expiry, &found->first});
    expiry = time;
}

std::optional<std::int64_t> KvStore::GetExpiry(std::string_view key) {
    const auto found = FindLiving(key);
    if (found == m_entries.end() || found->second.expiry == c_never) {
        return std::nullopt;
    }
    return found->second.expiry;
}

void KvStore::Clear() {
    m_expiries.clear();
    m_entries.clear();
}

std::size_t KvStore::RemoveExpired(std::size_t limit) {
    std::size_t removed = 0;
    for (; removed < limit && !m_expiries.empty() && m_expiries.begin()->first <= m_now;
         ++removed) {
        const auto found = m_entries.find(*m_expiries.begin()->second);
        assert(found != m_entries.end() && found->second.expiry == m_expiries.begin()->first);
        Erase(found);
    }
    return removed;
}

void KvStore::Erase(Entries::iterator found) {
    if (found->second.expiry != c_never) {
        m_expiries.erase({found->second.expiry, &found->first});
    }
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
