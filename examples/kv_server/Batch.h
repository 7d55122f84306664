// What travels between the network thread and the store's thread.
#pragma once

#include <kv_server/BlockChain.h>
#include <kv_server/RequestParser.h>

#include <cstdint>
#include <string>

namespace kv_server {

// The commands that one client has sent in one go, on their way there; the replies on the way back.
// One thread has it at a time; a client has one batch, and uses it again and again.
struct Batch {
    std::uint64_t clientId = 0;

    ChainPtr bytes;  // one block, which the slices of `commands` point into
    CommandList commands;
    std::size_t next = 0;  // the first command that has not been run
    std::string error;     // of the input behind the last command, to be told to the client

    BlockChain replies;
    bool quit = false;  // the client is to be let go after these replies

    bool HasCommands() const { return next < commands.ends.size(); }
};

}  // namespace kv_server
