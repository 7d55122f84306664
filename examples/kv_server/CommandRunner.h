// The commands: what they are called, what they take, and what they do to the store.
#pragma once

#include <kv_server/KvStore.h>
#include <kv_server/Request.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

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

// What a command works on.
struct CommandContext {
    KvStore& store;
    const Stats& stats;
    Arguments arguments{};        // of the command, its name first
    std::uint64_t processed = 0;  // commands
    std::size_t visited = 0;      // keys that this run has walked over
    ERun end = ERun::ALL;
};

// Belongs to one thread at a time, as the store; that and the numbers outlive it.
class CommandRunner {
public:
    CommandRunner(KvStore& store, const Stats& stats) : m_context{store, stats} {}

    // Runs the commands at the front of the input in their order, takes them off, and writes a
    // reply for each, behind the last one what is wrong with the input. EARLY when c_maxWaiting
    // bytes of replies wait, with `waiting` that do already, or when it took long.
    //
    // A command that finds no memory has changed nothing and gets an error reply; the client is let
    // go where there is none even for that.
    ERun Run(RequestParser& parser, CNxMessageChain& input, std::size_t waiting,
             CNxMessageChain& replies);

private:
    void RunOne(CNxMessageChain& replies);

    CommandContext m_context;
};

}  // namespace kv_server
