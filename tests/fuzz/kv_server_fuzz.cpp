// kv_server's requests: however the input is cut, the same commands are read and the same replies
// written, each a well-formed one; nothing that they do to the store breaks it.
#include <kv_server/CommandRunner.h>

#include <algorithm>
#include <string>

#include "Fuzz.h"

namespace {

using namespace kv_server;

constexpr int c_maxRuns = 1000000;

// Where the reply that begins at `at` ends.
size_t SkipReply(const std::string& text, size_t at) {
    const size_t end = text.find("\r\n", at);
    const char kind = text[at];
    Require(end != std::string::npos && std::string("+-:$*").find(kind) != std::string::npos);
    if (kind == '+' || kind == '-') {
        const std::string line = text.substr(at, end - at);
        Require(std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c <= '~'; }));
        return end + 2;
    }
    long number = 0;
    Require(ToNumber(text.substr(at + 1, end - at - 1), number));
    if (kind == '$' && number >= 0) {
        const size_t after = end + 2 + static_cast<size_t>(number);
        Require(text.compare(after, 2, "\r\n") == 0);
        return after + 2;
    }
    size_t next = end + 2;
    for (long i = 0; kind == '*' && i < number; ++i) {
        next = SkipReply(text, next);
    }
    return next;
}

// What a client gets that sends the input in pieces of that size.
std::string Answer(std::string_view input, size_t pieceSize) {
    KvStore store;
    store.SetTime(1000);
    const Stats stats;
    CommandRunner runner(store, stats);
    RequestParser parser;
    CNxMessageChain unread;
    ERun end = ERun::ALL;
    std::string all;
    for (size_t at = 0; at < input.size() && end != ERun::QUIT; at += pieceSize) {
        unread.Append(CNxMessageChain(input.substr(at, pieceSize)));
        end = ERun::EARLY;
        for (int i = 0; end == ERun::EARLY; ++i) {
            Require(i < c_maxRuns);
            CNxMessageChain replies;
            end = runner.Run(parser, unread, 0, replies);
            all += replies.ToString();
        }
        store.RemoveExpired(1);
    }
    Require(store.GetExpiringCount() <= store.GetSize());
    return all;
}

}  // namespace

// The first byte says in what pieces the rest is cut.
void Fuzz(std::string_view input) {
    CFuzzBytes requests{input};
    const size_t pieceSize = (requests.TakeByte() & 63) + 1;
    std::string whole = Answer(requests.m_left, input.size() + 1);
    for (size_t at = 0; at < whole.size();) {
        at = SkipReply(whole, at);
    }
    std::string pieces = Answer(requests.m_left, pieceSize);
    // Each store has KEYS in an order of its own; INFO tells the time.
    if (whole != pieces) {
        const bool hasTime = whole.find("uptime") != std::string::npos;
        std::sort(whole.begin(), whole.end());
        std::sort(pieces.begin(), pieces.end());
        Require(whole == pieces || hasTime);
    }
}
