// The commands: what they are called, what they take, and what they do to the store.
#pragma once

#include <kv_server/KvStore.h>
#include <kv_server/ReplyWriter.h>
#include <kv_server/Request.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string_view>

namespace kv_server {

constexpr std::size_t c_maxWaiting = 4UL << 20;  // bytes of replies that wait for a client

// What INFO tells of the connections.
struct Stats {
    const std::time_t startedAt = std::time(nullptr);
    std::atomic<std::uint64_t> connected{0};
    std::atomic<std::uint64_t> accepted{0};
    std::atomic<std::uint64_t> refused{0};
    std::atomic<unsigned short> port{0};
};

// How a run has ended.
enum class ERun {
    ALL,    // every command that is complete was run
    EARLY,  // others are to have their turn; then it goes on
    QUIT,   // the client is to be let go after these replies
};

// Belongs to one thread at a time, as the store; that and the numbers outlive it.
class CommandRunner {
public:
    CommandRunner(KvStore& store, const Stats& stats) : m_store(store), m_stats(stats) {}

    // Runs the commands at the front of the input in their order, takes them off, and writes a
    // reply for each, behind the last one what is wrong with the input. EARLY when c_maxWaiting
    // bytes of replies wait, with `waiting` that do already, or when it took long.
    //
    // A command that finds no memory has changed nothing and gets an error reply; the client is let
    // go where there is none even for that.
    ERun Run(RequestParser& parser, CNxMessageChain& input, std::size_t waiting,
             CNxMessageChain& replies);

private:
    struct Command {
        std::string_view name;
        std::size_t minArguments;  // with the name
        std::size_t maxArguments;
        void (CommandRunner::*run)(ReplyWriter& reply);
    };
    struct SetOptions {
        std::int64_t expiresAt = KvStore::c_never;
        bool onlyNew = false;
        bool onlyOld = false;
    };
    static const Command s_commands[];

    static const Command* FindCommand(std::string_view name);
    static bool EqualsNoCase(std::string_view text, std::string_view name);
    ERun RunAll(RequestParser& parser, CNxMessageChain& input, std::size_t most,
                CNxMessageChain& replies);
    void RunNext(CNxMessageChain& replies);
    void RunOne(ReplyWriter& reply);

    void Ping(ReplyWriter& reply);
    void Echo(ReplyWriter& reply);
    void Set(ReplyWriter& reply);
    void Get(ReplyWriter& reply);
    void Del(ReplyWriter& reply);
    void Exists(ReplyWriter& reply);
    void Incr(ReplyWriter& reply) { Add(1, reply); }
    void Decr(ReplyWriter& reply) { Add(-1, reply); }
    void Expire(ReplyWriter& reply);
    void Ttl(ReplyWriter& reply);
    void Keys(ReplyWriter& reply);
    void DbSize(ReplyWriter& reply);
    void FlushAll(ReplyWriter& reply);
    void Info(ReplyWriter& reply);
    void DescribeCommands(ReplyWriter& reply);
    void Config(ReplyWriter& reply);
    void Quit(ReplyWriter& reply);

    void Add(long change, ReplyWriter& reply);
    const char* ReadSetOptions(SetOptions& options) const;
    const char* ReadExpiry(std::string_view number, std::int64_t unit, SetOptions& options) const;

    KvStore& m_store;
    const Stats& m_stats;
    Arguments m_arguments;  // of the current command
    std::uint64_t m_processed = 0;
    std::size_t m_visited = 0;  // keys that this Run has walked over
    bool m_quit = false;
};

}  // namespace kv_server
