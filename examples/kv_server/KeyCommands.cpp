// The commands of CommandRunner that read and change the keys.
#include <kv_server/CommandRunner.h>

#include <algorithm>
#include <limits>
#include <string>
#include <utility>

namespace kv_server {

namespace {

constexpr const char* c_notANumber = "ERR value is not an integer or out of range";
constexpr const char* c_syntaxError = "ERR syntax error";

// What KEYS may spend: in proportion to the keys, which patterns that people write keep to; a
// pattern made to be slow gets an error.
constexpr std::size_t c_stepsBefore = 1UL << 20;
constexpr std::size_t c_stepsPerByte = 16;

}  // namespace

void CommandRunner::Set(ReplyWriter& reply) {
    SetOptions options;
    const char* const error = ReadSetOptions(options);
    if (error != nullptr) {
        reply.WriteError(error);
        return;
    }
    const std::string_view key = m_arguments[1];
    if (options.onlyNew || options.onlyOld) {
        const bool isOld = m_store.Find(key) != nullptr;
        if (isOld == options.onlyNew) {
            reply.WriteNil();
            return;
        }
    }
    m_store.Set(key, m_arguments[2], options.expiresAt);
    reply.WriteStatus("OK");
}

// The error to be told, or null.
const char* CommandRunner::ReadSetOptions(SetOptions& options) const {
    for (std::size_t i = 3; i < m_arguments.size(); ++i) {
        const std::string_view option = m_arguments[i];
        const bool seconds = EqualsNoCase(option, "EX");
        if (EqualsNoCase(option, "NX")) {
            options.onlyNew = true;
        } else if (EqualsNoCase(option, "XX")) {
            options.onlyOld = true;
        } else if ((seconds || EqualsNoCase(option, "PX")) && options.expiresAt == 0 &&
                   i + 1 < m_arguments.size()) {
            const char* const error = ReadExpiry(m_arguments[++i], seconds ? 1000 : 1, options);
            if (error != nullptr) {
                return error;
            }
        } else {
            return c_syntaxError;
        }
    }
    return options.onlyNew && options.onlyOld ? c_syntaxError : nullptr;
}

const char* CommandRunner::ReadExpiry(std::string_view number, std::int64_t unit,
                                      SetOptions& options) const {
    long count = 0;
    if (!ToNumber(number, count)) {
        return c_notANumber;
    }
    const std::int64_t now = m_store.GetTime();
    if (count <= 0 || count > (std::numeric_limits<std::int64_t>::max() - now) / unit) {
        return "ERR invalid expire time in 'set' command";
    }
    options.expiresAt = now + count * unit;
    return nullptr;
}

void CommandRunner::Get(ReplyWriter& reply) {
    const Value* const value = m_store.Find(m_arguments[1]);
    if (value == nullptr) {
        reply.WriteNil();
    } else {
        reply.WriteBulk(*value);
    }
}

void CommandRunner::Del(ReplyWriter& reply) {
    reply.WriteNumber(std::count_if(m_arguments.begin() + 1, m_arguments.end(),
                                    [this](std::string_view key) { return m_store.Delete(key); }));
}

void CommandRunner::Exists(ReplyWriter& reply) {
    const auto exists = [this](std::string_view key) { return m_store.Find(key) != nullptr; };
    reply.WriteNumber(std::count_if(m_arguments.begin() + 1, m_arguments.end(), exists));
}

void CommandRunner::Add(long change, ReplyWriter& reply) {
    const Value* const value = m_store.Find(m_arguments[1]);
    long number = 0;
    if (value != nullptr && !ToNumber(value->GetBytes(), number)) {
        reply.WriteError(c_notANumber);
        return;
    }
    if (__builtin_add_overflow(number, change, &number)) {
        reply.WriteError("ERR increment or decrement would overflow");
        return;
    }
    m_store.Set(m_arguments[1], std::to_string(number), KvStore::c_keepExpiry);
    reply.WriteNumber(number);
}

void CommandRunner::Expire(ReplyWriter& reply) {
    long seconds = 0;
    if (!ToNumber(m_arguments[2], seconds)) {
        reply.WriteError(c_notANumber);
        return;
    }
    const std::int64_t now = m_store.GetTime();
    if (seconds > (std::numeric_limits<std::int64_t>::max() - now) / 1000) {
        reply.WriteError("ERR invalid expire time in 'expire' command");
        return;
    }
    const bool done = seconds > 0 ? m_store.SetExpiry(m_arguments[1], now + seconds * 1000)
                                  : m_store.Delete(m_arguments[1]);
    reply.WriteNumber(done ? 1 : 0);
}

void CommandRunner::Ttl(ReplyWriter& reply) {
    if (m_store.Find(m_arguments[1]) == nullptr) {
        reply.WriteNumber(-2);
        return;
    }
    const auto expiry = m_store.GetExpiry(m_arguments[1]);
    reply.WriteNumber(expiry.has_value() ? (*expiry - m_store.GetTime() + 500) / 1000 : -1);
}

void CommandRunner::Keys(ReplyWriter& reply) {
    std::size_t count = 0;
    std::size_t steps = c_stepsBefore;
    CNxMessageChain names;
    ReplyWriter writer(names);
    m_store.ForEachKey([&](std::string_view key) {
        steps += c_stepsPerByte * (key.size() + 1);
        if (MatchesGlob(m_arguments[1], key, steps)) {
            writer.WriteBulk(key);
            ++count;
        }
        ++m_visited;
        return steps > 0;
    });
    if (steps == 0) {
        reply.WriteError("ERR pattern takes too long to match");
        return;
    }
    reply.WriteArraySize(count);
    reply.WriteReplies(std::move(names));
}

}  // namespace kv_server
