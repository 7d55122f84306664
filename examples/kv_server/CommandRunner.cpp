#include <kv_server/CommandRunner.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <new>

namespace kv_server {

namespace {

constexpr std::size_t c_shownOfName = 64;
constexpr std::size_t c_shortReply = 64;

// Then others have their turn.
constexpr std::size_t c_visitedAtOnce = 1UL << 20;

constexpr std::size_t c_stepsOfParameter = 1UL << 20;

std::string ToLower(std::string_view name) {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower;
}

}  // namespace

constexpr CommandRunner::Command CommandRunner::s_commands[] = {
    {"GET", 2, 2, &CommandRunner::Get},
    {"SET", 3, c_maxArguments, &CommandRunner::Set},
    {"INCR", 2, 2, &CommandRunner::Incr},
    {"DECR", 2, 2, &CommandRunner::Decr},
    {"PING", 1, 2, &CommandRunner::Ping},
    {"ECHO", 2, 2, &CommandRunner::Echo},
    {"DEL", 2, c_maxArguments, &CommandRunner::Del},
    {"EXISTS", 2, c_maxArguments, &CommandRunner::Exists},
    {"EXPIRE", 3, 3, &CommandRunner::Expire},
    {"TTL", 2, 2, &CommandRunner::Ttl},
    {"KEYS", 2, 2, &CommandRunner::Keys},
    {"DBSIZE", 1, 1, &CommandRunner::DbSize},
    {"FLUSHALL", 1, 2, &CommandRunner::FlushAll},
    {"INFO", 1, c_maxArguments, &CommandRunner::Info},
    {"COMMAND", 1, c_maxArguments, &CommandRunner::DescribeCommands},
    {"CONFIG", 2, c_maxArguments, &CommandRunner::Config},
    {"QUIT", 1, c_maxArguments, &CommandRunner::Quit},
};

// The name is in capitals, whose fifth bit is all that small letters differ in.
bool CommandRunner::EqualsNoCase(std::string_view text, std::string_view name) {
    constexpr int c_toCapital = ~0x20;
    return text.size() == name.size() &&
           std::equal(text.begin(), text.end(), name.begin(),
                      [](char c, char capital) { return (c & c_toCapital) == capital; });
}

// The busiest come first in the table, and their lengths differ from most others'.
const CommandRunner::Command* CommandRunner::FindCommand(std::string_view name) {
    const auto hasName = [name](const Command& command) {
        return EqualsNoCase(name, command.name);
    };
    const auto* const found = std::find_if(std::begin(s_commands), std::end(s_commands), hasName);
    return found != std::end(s_commands) ? found : nullptr;
}

ERun CommandRunner::Run(RequestParser& parser, CNxMessageChain& input, std::size_t waiting,
                        CNxMessageChain& replies) {
    m_quit = false;
    m_visited = 0;
    const std::size_t most = c_maxWaiting - std::min(waiting, c_maxWaiting);
    ERun end = ERun::QUIT;
    try {
        end = RunAll(parser, input, most, replies);
        if (!parser.GetError().empty()) {
            ReplyWriter(replies).WriteError("ERR " + parser.GetError());
            end = ERun::QUIT;
        }
    } catch (const std::bad_alloc&) {
        // Not even an error reply.
    }
    parser.Finish(input);
    return end;
}

ERun CommandRunner::RunAll(RequestParser& parser, CNxMessageChain& input, std::size_t most,
                           CNxMessageChain& replies) {
    while (parser.Next(input, m_arguments)) {
        RunNext(replies);
        if (m_quit) {
            return ERun::QUIT;
        }
        if (replies.GetSize() >= most || m_visited >= c_visitedAtOnce) {
            return ERun::EARLY;
        }
    }
    return ERun::ALL;
}

// With room for every short reply a command that has changed something can always say so.
void CommandRunner::RunNext(CNxMessageChain& replies) {
    replies.MakeSpace(c_shortReply);
    ReplyWriter reply(replies);
    ++m_processed;
    try {
        RunOne(reply);
    } catch (const std::bad_alloc&) {
        reply.WriteError("ERR out of memory");
    }
}

void CommandRunner::RunOne(ReplyWriter& reply) {
    const std::string_view name = m_arguments[0];
    const Command* const command = FindCommand(name);
    if (command == nullptr) {
        reply.WriteError("ERR unknown command '" + ToShown(name.substr(0, c_shownOfName)) + "'");
    } else if (m_arguments.size() < command->minArguments ||
               m_arguments.size() > command->maxArguments) {
        reply.WriteError("ERR wrong number of arguments for '" + ToLower(name) + "' command");
    } else {
        (this->*command->run)(reply);
    }
}

void CommandRunner::Ping(ReplyWriter& reply) {
    if (m_arguments.size() == 1) {
        reply.WriteStatus("PONG");
    } else {
        reply.WriteBulk(m_arguments[1]);
    }
}

void CommandRunner::Echo(ReplyWriter& reply) {
    reply.WriteBulk(m_arguments[1]);
}

void CommandRunner::DbSize(ReplyWriter& reply) {
    reply.WriteNumber(static_cast<long>(m_store.GetSize()));
}

void CommandRunner::FlushAll(ReplyWriter& reply) {
    m_store.Clear();
    reply.WriteStatus("OK");
}

void CommandRunner::Info(ReplyWriter& reply) {
    const auto number = [](std::uint64_t value) { return std::to_string(value) + "\r\n"; };
    const auto uptime = static_cast<std::uint64_t>(std::time(nullptr) - m_stats.startedAt);
    std::string text = "# Server\r\n";
    text += "tcp_port:" + number(m_stats.port);
    text += "uptime_in_seconds:" + number(uptime);
    text += "\r\n# Clients\r\n";
    text += "connected_clients:" + number(m_stats.connected);
    text += "\r\n# Stats\r\n";
    text += "total_connections_received:" + number(m_stats.accepted);
    text += "rejected_connections:" + number(m_stats.refused);
    text += "total_commands_processed:" + number(m_processed);
    text += "\r\n# Keyspace\r\n";
    text += "db0:keys=" + std::to_string(m_store.GetSize()) +
            ",expires=" + std::to_string(m_store.GetExpiringCount()) + "\r\n";
    reply.WriteBulk(text);
}

// COMMAND COUNT tells how many there are; nothing more is described.
void CommandRunner::DescribeCommands(ReplyWriter& reply) {
    if (m_arguments.size() == 2 && EqualsNoCase(m_arguments[1], "COUNT")) {
        reply.WriteNumber(static_cast<long>(std::size(s_commands)));
    } else {
        reply.WriteArraySize(0);
    }
}

// CONFIG GET answers with what load clients ask for first: nothing is saved to disk.
void CommandRunner::Config(ReplyWriter& reply) {
    if (!EqualsNoCase(m_arguments[1], "GET")) {
        reply.WriteError("ERR unknown subcommand '" +
                         ToShown(m_arguments[1].substr(0, c_shownOfName)) + "'");
        return;
    }
    if (m_arguments.size() < 3) {
        reply.WriteError("ERR wrong number of arguments for 'config|get' command");
        return;
    }
    constexpr std::pair<std::string_view, std::string_view> parameters[] = {{"save", ""},
                                                                            {"appendonly", "no"}};
    const auto wanted = [this](std::string_view name) {
        return std::any_of(m_arguments.begin() + 2, m_arguments.end(), [&](std::string_view p) {
            std::size_t steps = c_stepsOfParameter;
            return MatchesGlob(ToLower(p), name, steps);
        });
    };
    CNxMessageChain found;
    ReplyWriter writer(found);
    std::size_t count = 0;
    for (const auto& [name, value] : parameters) {
        if (wanted(name)) {
            writer.WriteBulk(name);
            writer.WriteBulk(value);
            count += 2;
        }
    }
    reply.WriteArraySize(count);
    reply.WriteReplies(std::move(found));
}

void CommandRunner::Quit(ReplyWriter& reply) {
    reply.WriteStatus("OK");
    m_quit = true;
}

}  // namespace kv_server
