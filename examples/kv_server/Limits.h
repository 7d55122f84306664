// How much one client may ask for.
#pragma once

#include <cstddef>

namespace kv_server {

constexpr std::size_t c_maxBulk = 16UL << 20;     // bytes of one argument
constexpr std::size_t c_maxArguments = 1024;      // of one command, its name included
constexpr std::size_t c_maxCommand = 64UL << 20;  // bytes of one command in all
constexpr std::size_t c_maxInline = 64UL << 10;   // bytes of a command in one line
constexpr std::size_t c_maxWaiting = 4UL << 20;   // bytes of replies that wait for the client

}  // namespace kv_server
