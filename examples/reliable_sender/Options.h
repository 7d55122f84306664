// What the command line asks for.
#pragma once

#include <cstdint>
#include <string>

namespace reliable_sender {

struct Options {
    // A name, or an IPv4 or IPv6 address: of the peer, or what the peer listens on.
    std::string host = "127.0.0.1";
    // The peer's. 0: be the peer.
    std::uint64_t port = 0;
    std::uint64_t requests = 10;
    // Milliseconds between two requests.
    std::uint64_t interval = 100;
    // Bytes that a request carries.
    std::uint64_t size = 32;
    // Seconds that the answers may take in all; 0 for any time.
    std::uint64_t timeout = 0;

    // The peer's own port. 0: be the sender.
    std::uint64_t listen = 0;
    // Per cent of the requests that the peer leaves unanswered.
    std::uint64_t lose = 0;
};

}  // namespace reliable_sender
