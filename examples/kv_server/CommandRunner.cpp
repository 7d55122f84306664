#include <kv_server/CommandRunner.h>
#include <strings.h>

#include <algorithm>
#include <cassert>
#include <cctype>
#include <ctime>

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

bool CommandRunner::EqualsNoCase(std::string_view text, std::string_view name) {
    return text.size() == name.size() && strncasecmp(text.data(), name.data(), name.size()) == 0;
}

// The busiest come first in the table, and their lengths differ from most others'.
const CommandRunner::Command* CommandRunner::FindCommand(std::string_view name) {
    const auto hasName = [name](const Command& command) {
        return EqualsNoCase(name, command.name);
    };
    const auto* const found = std::find_if(std::begin(s_commands), std::end(s_commands), hasName);
    return found != std::end(s_commands) ? found : nullptr;
}

bool CommandRunner::MayGoOn(const Batch& batch) const {
    return batch.HasCommands() && !m_quit && !IsGivenUp() && m_visited < c_visitedAtOnce &&
           batch.replies.GetSize() < c_maxWaiting;
}

void CommandRunner::Run(Batch& batch) {
    m_quit = false;
    m_visited = 0;
    try {
        while (MayGoOn(batch)) {
            RunNext(batch);
        }
        if (!m_quit && !batch.HasCommands() && !batch.error.empty()) {
            ReplyWriter(batch.replies).WriteError("ERR " + batch.error);
            batch.error.clear();
            m_quit = true;
        }
    } catch (const std::bad_alloc&) {
        m_quit = true;
    }
    batch.quit = m_quit;
}

// With room for every short reply a command that has changed something can always say so.
void CommandRunner::RunNext(Batch& batch) {
    batch.replies.Reserve(c_shortReply);
    ReplyWriter reply(batch.replies);
    try {
        TakeArguments(batch);
        ++batch.next;
        ++m_processed;
        RunOne(reply);
    } catch (const std::bad_alloc&) {
        reply.WriteError("ERR out of memory");
    }
}

void CommandRunner::TakeArguments(const Batch& batch) {
    const CommandList& list = batch.commands;
    assert(batch.bytes != nullptr && list.ends.back() == list.arguments.size());
    m_arguments.clear();
    for (std::size_t i = batch.next > 0 ? list.ends[batch.next - 1] : 0; i < list.ends[batch.next];
         ++i) {
        const CommandList::Slice& slice = list.arguments[i];
        m_arguments.emplace_back(batch.bytes->GetReadPtr() + slice.offset, slice.size);
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
    examples::BlockChain found;
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
