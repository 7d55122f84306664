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
#include <vector>

namespace kv_server {

// What INFO tells of the connections. Counted on the network thread, read on the store's.
struct Stats {
    const std::time_t startedAt = std::time(nullptr);
    std::atomic<std::uint64_t> connected{0};
    std::atomic<std::uint64_t> accepted{0};
    std::atomic<std::uint64_t> refused{0};
    unsigned short port = 0;  // set before there are clients
};

// Belongs to the store's thread; the store and the numbers outlive it.
class CommandRunner {
public:
    CommandRunner(KvStore& store, const Stats& stats) : m_store(store), m_stats(stats) {}

    // Runs the commands of the batch in their order, writes a reply for each, and, after the last,
    // the error of the input. Stops early when c_maxWaiting bytes of replies have come together, or
    // when it took long: the batch then still has commands, to be run when the client has taken
    // these and others had their turn.
    //
    // A command that finds no memory has changed nothing and gets an error reply; the client is let
    // go where there is none even for that.
    void Run(Batch& batch);

    // Any thread: from now on Run does as little as it can.
    void GiveUp() { m_isGivenUp.store(true, std::memory_order_relaxed); }

private:
    using Arguments = std::vector<std::string_view>;
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
    bool MayGoOn(const Batch& batch) const;
    bool IsGivenUp() const { return m_isGivenUp.load(std::memory_order_relaxed); }
    void RunNext(Batch& batch);
    void TakeArguments(const Batch& batch);
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
    Arguments m_arguments;  // of the current command, its name first
    std::uint64_t m_processed = 0;
    std::size_t m_visited = 0;  // keys that this Run has walked over
    bool m_quit = false;
    std::atomic<bool> m_isGivenUp{false};
};

}  // namespace kv_server
