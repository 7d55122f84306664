#include <kv_server/CommandRunner.h>

#include <algorithm>
#include <cstdio>
#include <new>
#include <string>
#include <string_view>
#include <utility>

namespace kv_server {

namespace {

constexpr std::size_t c_shownOfName = 64;
constexpr std::size_t c_shortReply = 64;
constexpr std::size_t c_sharedFrom = 4096;

// Then others have their turn.
constexpr std::size_t c_visitedAtOnce = 1UL << 20;

// What KEYS may spend: in proportion to the keys, which patterns that people write keep to; a
// pattern made to be slow gets an error.
constexpr std::size_t c_stepsBefore = 1UL << 20;
constexpr std::size_t c_stepsPerByte = 16;
// They take the time of a key that is visited.
constexpr std::size_t c_stepsOfVisit = 4;

constexpr std::string_view c_ok = "+OK\r\n";
constexpr std::string_view c_nil = "$-1\r\n";
constexpr std::string_view c_notANumber = "value is not an integer or out of range";
constexpr std::string_view c_syntaxError = "syntax error";

using Reply = CNxMessageChain;

// Replies in RESP2. Each is there as a whole or, after a std::bad_alloc, not at all.
std::string ToHead(char type, std::size_t size) {
    return type + std::to_string(size) + "\r\n";
}

void AddNumber(Reply& reply, long number) {
    reply.Append({":", std::to_string(number), "\r\n"});
}

void AddBulk(Reply& reply, std::string_view bytes) {
    reply.Append({ToHead('$', bytes.size()), bytes, "\r\n"});
}

// The text must not contain a line end.
void AddError(Reply& reply, std::string_view text) {
    reply.Append({"-ERR ", text, "\r\n"});
}

void AddArray(Reply& reply, std::size_t size, Reply&& elements) {
    reply.Append(ToHead('*', size));
    reply.Append(std::move(elements));
}

// The name is in small letters, which have a bit more than the capitals.
bool EqualsNoCase(std::string_view text, std::string_view name) {
    return text.size() == name.size() &&
           std::equal(text.begin(), text.end(), name.begin(),
                      [](char c, char small) { return (c | 0x20) == small; });
}

// The time that is so many units ahead; false when there is none.
bool ToTime(const CommandContext& context, long count, std::int64_t unit, std::int64_t& time) {
    return !__builtin_mul_overflow(count, unit, &time) &&
           !__builtin_add_overflow(time, context.store.GetTime(), &time);
}

void Get(CommandContext& context, Reply& reply) {
    const Value* const value = context.store.Find(context.arguments[1]);
    if (value == nullptr) {
        reply.Append(c_nil);
    } else if (value->GetBytes().size() >= c_sharedFrom) {
        Reply whole(ToHead('$', value->GetBytes().size()));
        value->ShareTo(whole);
        whole.Append("\r\n");
        reply.Append(std::move(whole));
    } else {
        AddBulk(reply, value->GetBytes());
    }
}

struct SetOptions {
    std::int64_t expiresAt = KvStore::c_never;
    bool onlyNew = false;
    bool onlyOld = false;
};

// What is wrong, or "".
std::string_view ReadSetOptions(const CommandContext& context, SetOptions& options) {
    const Arguments& arguments = context.arguments;
    for (std::size_t i = 3; i < arguments.size(); ++i) {
        const bool isSeconds = EqualsNoCase(arguments[i], "ex");
        const bool isTime = isSeconds || EqualsNoCase(arguments[i], "px");
        if (isTime && options.expiresAt == KvStore::c_never && i + 1 < arguments.size()) {
            long count = 0;
            if (!ToNumber(arguments[++i], count)) {
                return c_notANumber;
            }
            if (count <= 0 || !ToTime(context, count, isSeconds ? 1000 : 1, options.expiresAt)) {
                return "invalid expire time in 'set' command";
            }
        } else if (EqualsNoCase(arguments[i], "nx")) {
            options.onlyNew = true;
        } else if (EqualsNoCase(arguments[i], "xx")) {
            options.onlyOld = true;
        } else {
            return c_syntaxError;
        }
    }
    return options.onlyNew && options.onlyOld ? c_syntaxError : "";
}

void Set(CommandContext& context, Reply& reply) {
    const std::string_view key = context.arguments[1];
    SetOptions options;
    const std::string_view error = ReadSetOptions(context, options);
    if (!error.empty()) {
        AddError(reply, error);
    } else if ((options.onlyNew || options.onlyOld) &&
               (context.store.Find(key) != nullptr) == options.onlyNew) {
        reply.Append(c_nil);
    } else {
        context.store.Set(key, context.arguments[2], options.expiresAt);
        reply.Append(c_ok);
    }
}

template <long change>
void Add(CommandContext& context, Reply& reply) {
    const std::string_view key = context.arguments[1];
    const Value* const value = context.store.Find(key);
    long number = 0;
    if (value != nullptr && !ToNumber(value->GetBytes(), number)) {
        AddError(reply, c_notANumber);
    } else if (__builtin_add_overflow(number, change, &number)) {
        AddError(reply, "increment or decrement would overflow");
    } else {
        const std::string text = std::to_string(number);
        context.store.Set(key, text, KvStore::c_keepExpiry);
        reply.Append({":", text, "\r\n"});
    }
}

// Of the keys that are named, those for which it is true.
template <class Predicate>
void AddCount(const CommandContext& context, Reply& reply, Predicate predicate) {
    const Arguments& arguments = context.arguments;
    AddNumber(reply, std::count_if(arguments.begin() + 1, arguments.end(), predicate));
}

void Del(CommandContext& context, Reply& reply) {
    AddCount(context, reply, [&](std::string_view key) { return context.store.Delete(key); });
}

void Exists(CommandContext& context, Reply& reply) {
    AddCount(context, reply, [&](auto key) { return context.store.Find(key) != nullptr; });
}

void Expire(CommandContext& context, Reply& reply) {
    const std::string_view key = context.arguments[1];
    long seconds = 0;
    std::int64_t time = 0;
    if (!ToNumber(context.arguments[2], seconds)) {
        AddError(reply, c_notANumber);
    } else if (seconds <= 0) {
        AddNumber(reply, context.store.Delete(key) ? 1 : 0);
    } else if (!ToTime(context, seconds, 1000, time)) {
        AddError(reply, "invalid expire time in 'expire' command");
    } else {
        AddNumber(reply, context.store.SetExpiry(key, time) ? 1 : 0);
    }
}

void Ttl(CommandContext& context, Reply& reply) {
    KvStore& store = context.store;
    const auto expiry = store.GetExpiry(context.arguments[1]);
    if (expiry.has_value()) {
        AddNumber(reply, (*expiry - store.GetTime() + 500) / 1000);
    } else {
        AddNumber(reply, store.Find(context.arguments[1]) != nullptr ? -1 : -2);
    }
}

void Keys(CommandContext& context, Reply& reply) {
    std::size_t count = 0;
    std::size_t steps = c_stepsBefore;
    Reply names;
    context.store.ForEachKey([&](std::string_view key) {
        steps += c_stepsPerByte * (key.size() + 1);
        const std::size_t given = steps;
        if (MatchesGlob(context.arguments[1], key, steps)) {
            AddBulk(names, key);
            ++count;
        }
        context.visited += 1 + (given - steps) / c_stepsOfVisit;
        return steps > 0;
    });
    if (steps == 0) {
        AddError(reply, "pattern takes too long to match");
    } else {
        AddArray(reply, count, std::move(names));
    }
}

// PING, too, says what it is given.
void Echo(CommandContext& context, Reply& reply) {
    if (context.arguments.size() > 1) {
        AddBulk(reply, context.arguments[1]);
    } else {
        reply.Append("+PONG\r\n");
    }
}

void DbSize(CommandContext& context, Reply& reply) {
    AddNumber(reply, static_cast<long>(context.store.GetSize()));
}

void FlushAll(CommandContext& context, Reply& reply) {
    context.store.Clear();
    reply.Append(c_ok);
}

void Info(CommandContext& context, Reply& reply) {
    const Stats& stats = context.stats;
    char text[512];
    std::snprintf(text, sizeof(text),
                  "# Server\r\ntcp_port:%u\r\nuptime_in_seconds:%ld\r\n\r\n"
                  "# Clients\r\nconnected_clients:%lu\r\n\r\n"
                  "# Stats\r\ntotal_connections_received:%lu\r\nrejected_connections:%lu\r\n"
                  "total_commands_processed:%lu\r\n\r\n"
                  "# Keyspace\r\ndb0:keys=%zu,expires=%zu\r\n",
                  stats.port.load(), std::time(nullptr) - stats.startedAt, stats.connected.load(),
                  stats.accepted.load(), stats.refused.load(), context.processed,
                  context.store.GetSize(), context.store.GetExpiringCount());
    AddBulk(reply, text);
}

// CONFIG GET answers with what load clients ask for first: nothing is saved to disk.
void Config(CommandContext& context, Reply& reply) {
    const Arguments& arguments = context.arguments;
    if (!EqualsNoCase(arguments[1], "get")) {
        const std::string shown = ToShown(arguments[1].substr(0, c_shownOfName));
        return AddError(reply, "unknown subcommand '" + shown + "'");
    }
    std::size_t count = 0;
    Reply found;
    for (const auto& [name, value] : {std::pair("save", ""), {"appendonly", "no"}}) {
        const auto isName = [name = name](auto asked) { return EqualsNoCase(asked, name); };
        if (std::any_of(arguments.begin() + 2, arguments.end(), isName)) {
            AddBulk(found, name);
            AddBulk(found, value);
            count += 2;
        }
    }
    AddArray(reply, count, std::move(found));
}

void Quit(CommandContext& context, Reply& reply) {
    reply.Append(c_ok);
    context.end = ERun::QUIT;
}

void Describe(CommandContext& context, Reply& reply);

struct Command {
    std::string_view name;
    std::size_t minArguments;  // with the name
    std::size_t maxArguments;
    void (*run)(CommandContext& context, Reply& reply);
};

// The busiest come first.
constexpr Command c_commands[] = {
    {"get", 2, 2, Get},
    {"set", 3, c_maxArguments, Set},
    {"incr", 2, 2, Add<1>},
    {"decr", 2, 2, Add<-1>},
    {"ping", 1, 2, Echo},
    {"echo", 2, 2, Echo},
    {"del", 2, c_maxArguments, Del},
    {"exists", 2, c_maxArguments, Exists},
    {"expire", 3, 3, Expire},
    {"ttl", 2, 2, Ttl},
    {"keys", 2, 2, Keys},
    {"dbsize", 1, 1, DbSize},
    {"flushall", 1, 2, FlushAll},
    {"info", 1, c_maxArguments, Info},
    {"command", 1, c_maxArguments, Describe},
    {"config", 3, c_maxArguments, Config},
    {"quit", 1, c_maxArguments, Quit},
};

// COMMAND COUNT tells how many there are; nothing more is described.
void Describe(CommandContext& context, Reply& reply) {
    if (context.arguments.size() == 2 && EqualsNoCase(context.arguments[1], "count")) {
        AddNumber(reply, std::size(c_commands));
    } else {
        AddArray(reply, 0, {});
    }
}

}  // namespace

ERun CommandRunner::Run(RequestParser& parser, CNxMessageChain& input, std::size_t waiting,
                        CNxMessageChain& replies) {
    ERun& end = m_context.end;
    end = ERun::ALL;
    m_context.visited = 0;
    const std::size_t most = c_maxWaiting - std::min(waiting, c_maxWaiting);
    try {
        while (end == ERun::ALL && parser.Next(input, m_context.arguments)) {
            RunOne(replies);
            const bool isLong = replies.GetSize() >= most || m_context.visited >= c_visitedAtOnce;
            end = end == ERun::ALL && isLong ? ERun::EARLY : end;
        }
        if (!parser.GetError().empty()) {
            end = ERun::QUIT;
            AddError(replies, parser.GetError());
        }
    } catch (const std::bad_alloc&) {
        // Not even an error reply.
        end = ERun::QUIT;
    }
    parser.Finish(input);
    return end;
}

// With room for every short reply a command that has changed something can always say so.
void CommandRunner::RunOne(CNxMessageChain& replies) {
    replies.MakeSpace(c_shortReply);
    ++m_context.processed;
    const std::string_view name = m_context.arguments[0];
    const std::size_t count = m_context.arguments.size();
    const auto* const command =
        std::find_if(std::begin(c_commands), std::end(c_commands),
                     [name](const Command& known) { return EqualsNoCase(name, known.name); });
    try {
        if (command == std::end(c_commands)) {
            AddError(replies, "unknown command '" + ToShown(name.substr(0, c_shownOfName)) + "'");
        } else if (count < command->minArguments || count > command->maxArguments) {
            AddError(replies,
                     "wrong number of arguments for '" + std::string(command->name) + "' command");
        } else {
            command->run(m_context, replies);
        }
    } catch (const std::bad_alloc&) {
        AddError(replies, "out of memory");
    }
}

}  // namespace kv_server
