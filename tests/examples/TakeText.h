// What is in a chain, sent through a socket as a server would.
#pragma once

#include <common/BlockChain.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

inline std::string TakeText(examples::BlockChain& chain) {
    int ends[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends));
    std::string text(chain.GetSize(), '\0');
    for (size_t got = 0; got < text.size();) {
        EXPECT_GT(chain.SendTo(ends[0]), 0);
        got += static_cast<size_t>(read(ends[1], text.data() + got, text.size() - got));
    }
    EXPECT_TRUE(chain.IsEmpty());
    close(ends[0]);
    close(ends[1]);
    return text;
}
