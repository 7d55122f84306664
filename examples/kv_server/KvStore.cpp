#include <kv_server/KvStore.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <new>

namespace kv_server {

namespace {

// Whether the element of the pattern at `position` takes the byte; the position goes behind it, and
// one beyond the end for a set that is not closed, which is taken as closed.
bool MatchOne(std::string_view pattern, std::size_t& position, char byte) {
    const auto next = [&] {
        const bool isEscaped = pattern[position] == '\\' && position + 1 < pattern.size();
        position += isEscaped ? 2 : 1;
        return static_cast<unsigned char>(pattern[position - 1]);
    };
    const auto value = static_cast<unsigned char>(byte);
    if (pattern[position] != '[') {
        const bool isAny = pattern[position] == '?';
        return next() == value || isAny;
    }
    const bool isNegated = ++position < pattern.size() && pattern[position] == '^';
    position += isNegated ? 1 : 0;
    bool isFound = false;
    while (position < pattern.size() && pattern[position] != ']') {
        const unsigned char first = next();
        unsigned char last = first;
        const std::string_view rest = pattern.substr(position, 2);
        if (rest.size() == 2 && rest[0] == '-' && rest[1] != ']') {
            last = static_cast<unsigned char>(rest[1]);
            position += 2;
        }
        isFound = isFound || (std::min(first, last) <= value && value <= std::max(first, last));
    }
    ++position;
    return isFound != isNegated;
}

}  // namespace

Value::Value(std::string_view bytes) {
    CNxDataBlock* block = nullptr;
    if (!bytes.empty() &&
        CNxDataBlock::CreateInstance(block, bytes.size(), bytes.data()) != NX_OK) {
        throw std::bad_alloc();
    }
    m_block = CNxAutoPtr<CNxDataBlock>::Adopt(block);
}

std::size_t KeyHash::operator()(std::string_view key) const {
    unsigned char hash[crypto_shorthash_BYTES];
    crypto_shorthash(hash, reinterpret_cast<const unsigned char*>(key.data()), key.size(), m_key);
    std::size_t word = 0;
    static_assert(sizeof(hash) == sizeof(word));
    std::memcpy(&word, hash, sizeof(word));
    return word;
}

Entry* KvStore::FindLiving(std::string_view key) {
    const auto found = m_entries.find(key);
    if (found == m_entries.end()) {
        return nullptr;
    }
    if (IsExpired(**found)) {
        Erase(**found);
        return nullptr;
    }
    return found->get();
}

const Value* KvStore::Find(std::string_view key) {
    const Entry* const found = FindLiving(key);
    return found != nullptr ? &found->value : nullptr;
}

void KvStore::Set(std::string_view key, std::string_view value, std::int64_t expiry) {
    Value made(value);
    Entry* entry = FindLiving(key);
    const bool isNew = entry == nullptr;
    if (isNew) {
        entry = m_entries.insert(std::make_unique<Entry>(Entry{std::string(key), {}, c_never}))
                    .first->get();
    }
    try {
        Expire(*entry, expiry == c_keepExpiry ? entry->expiry : expiry);
    } catch (const std::bad_alloc&) {
        if (isNew) {
            Erase(*entry);
        }
        throw;
    }
    entry->value = std::move(made);
}

bool KvStore::Delete(std::string_view key) {
    const Entry* const found = FindLiving(key);
    if (found != nullptr) {
        Erase(*found);
    }
    return found != nullptr;
}

bool KvStore::SetExpiry(std::string_view key, std::int64_t time) {
    Entry* const found = FindLiving(key);
    if (found != nullptr) {
        Expire(*found, time);
    }
    return found != nullptr;
}

// Or never.
void KvStore::Expire(Entry& entry, std::int64_t time) {
    if (time == entry.expiry) {
        return;
    }
    if (time != c_never) {
        m_expiries.emplace(time, &entry);
    }
    m_expiries.erase({entry.expiry, &entry});
    entry.expiry = time;
}

std::optional<std::int64_t> KvStore::GetExpiry(std::string_view key) {
    const Entry* const found = FindLiving(key);
    const bool expires = found != nullptr && found->expiry != c_never;
    return expires ? std::optional(found->expiry) : std::nullopt;
}

void KvStore::Clear() {
    m_expiries.clear();
    m_entries.clear();
}

void KvStore::RemoveExpired(std::size_t limit) {
    for (; limit > 0 && !m_expiries.empty() && m_expiries.begin()->first <= m_now; --limit) {
        Erase(*m_expiries.begin()->second);
    }
}

void KvStore::Erase(const Entry& entry) {
    m_expiries.erase({entry.expiry, &entry});
    m_entries.erase(m_entries.find(entry.key));
}

bool MatchesGlob(std::string_view pattern, std::string_view text, std::size_t& steps) {
    // Where to go on when the match fails: the last star takes one byte more. Earlier stars need
    // not be tried again.
    std::size_t afterStar = 0;
    std::size_t starTaken = 0;
    std::size_t p = 0;
    for (std::size_t t = 0; t < text.size();) {
        const std::size_t looked = p;
        bool goesOn = true;
        if (p < pattern.size() && pattern[p] == '*') {
            afterStar = ++p;
            starTaken = t;
        } else if (p < pattern.size() && MatchOne(pattern, p, text[t])) {
            ++t;
        } else {
            goesOn = false;
        }
        steps -= std::min(steps, std::max<std::size_t>(p - looked, 1));
        if (steps == 0 || (!goesOn && afterStar == 0)) {
            return false;
        }
        if (!goesOn) {
            p = afterStar;
            t = ++starTaken;
        } else if (afterStar == pattern.size()) {
            return true;
        }
    }
    return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

}  // namespace kv_server
