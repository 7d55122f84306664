// kv_server without its network, and what is said to it.
#pragma once

#include <kv_server/CommandRunner.h>
#include <tests/examples/TakeText.h>

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
        kv_server::Batch batch;
        m_reader.Take(input, batch);
        m_runner.Run(batch);
        m_isOver = batch.quit;
        return TakeText(batch.replies);
    }

    // The same for input that comes in pieces of that size, until it is let go.
    std::string Answer(std::string_view input, size_t pieceSize) {
        std::string replies;
        m_isOver = false;
        for (size_t at = 0; at < input.size() && !m_isOver; at += pieceSize) {
            replies += Answer(input.substr(at, pieceSize));
        }
        return replies;
    }

    kv_server::KvStore m_store;
    kv_server::Stats m_stats;
    kv_server::CommandRunner m_runner{m_store, m_stats};
    kv_server::RequestReader m_reader;
    bool m_isOver = false;
};
