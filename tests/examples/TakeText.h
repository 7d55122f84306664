// What is in a chain, sent through a socket as a server would.
#pragma once

#include <common/BlockChain.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

// The chain is empty afterwards; aborts where it cannot be sent.
inline std::string TakeText(examples::BlockChain& chain) {
    int ends[2];
    bool isRight = socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0;
    std::string text;
    char buffer[65536];
    while (isRight && !chain.IsEmpty()) {
        isRight = chain.SendTo(ends[0]) > 0 || errno == EAGAIN;
        for (ssize_t got = 0; (got = read(ends[1], buffer, sizeof(buffer))) > 0;) {
            text.append(buffer, static_cast<size_t>(got));
        }
    }
    if (!isRight) {
        std::abort();
    }
    close(ends[0]);
    close(ends[1]);
    return text;
}
