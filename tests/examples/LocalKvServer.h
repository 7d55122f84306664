// kv_server without its network, and what is said to it.
#pragma once

#include <kv_server/CommandRunner.h>

#include <string>
#include <string_view>
#include <vector>

using Words = std::vector<std::string>;

inline std::string ToBulk(const std::string& bytes) {
    return "$" + std::to_string(bytes.size()) + "\r\n" + bytes + "\r\n";
}

inline std::string ToRequest(const Words& words) {
    std::string request = "*" + std::to_string(words.size()) + "\r\n";
    for (const std::string& word : words) {
        request += ToBulk(word);
    }
    return request;
}

struct LocalKvServer {
    // Has the input run as far as it goes, and gives the replies.
    std::string Answer(std::string_view input) {
        CNxMessageChain replies;
        m_input.Append(input);
        m_end = m_runner.Run(m_parser, m_input, 0, replies);
        return replies.ToString();
    }

    kv_server::KvStore m_store;
    kv_server::Stats m_stats;
    kv_server::CommandRunner m_runner{m_store, m_stats};
    kv_server::RequestParser m_parser;
    CNxMessageChain m_input;
    kv_server::ERun m_end = kv_server::ERun::ALL;
};
