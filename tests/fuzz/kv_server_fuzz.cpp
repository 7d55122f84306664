// kv_server's requests: however the input is cut, the same commands are read and the same replies
// written, each a well-formed one; nothing that they do to the store breaks it.
#include <kv_server/CommandRunner.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "FuzzFile.h"

namespace {

using namespace kv_server;

constexpr int c_maxRuns = 1000000;

// The bytes of the chain, which is empty afterwards.
std::string Take(examples::BlockChain& chain) {
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0);
    std::string text;
    char buffer[65536];
    while (!chain.IsEmpty()) {
        Require(chain.SendTo(ends[0]) > 0 || errno == EAGAIN);
        for (ssize_t got = 1; got > 0;) {
            got = read(ends[1], buffer, sizeof(buffer));
            text.append(buffer, static_cast<size_t>(std::max<ssize_t>(got, 0)));
        }
    }
    close(ends[0]);
    close(ends[1]);
    return text;
}

// Where the reply that begins at `at` ends.
size_t SkipReply(const std::string& text, size_t at) {
    const size_t end = text.find("\r\n", at);
    Require(end != std::string::npos && std::string("+-:$*").find(text[at]) != std::string::npos);
    if (text[at] == '+' || text[at] == '-') {
        Require(std::all_of(text.begin() + static_cast<long>(at),
                            text.begin() + static_cast<long>(end),
                            [](char c) { return c >= ' ' && c <= '~'; }));
        return end + 2;
    }
    long number = 0;
    Require(ToNumber(text.substr(at + 1, end - at - 1), number));
    if (text[at] == '$' && number >= 0) {
        const size_t after = end + 2 + static_cast<size_t>(number);
        Require(text.compare(after, 2, "\r\n") == 0);
        return after + 2;
    }
    size_t next = end + 2;
    for (long i = 0; text[at] == '*' && i < number; ++i) {
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
    RequestReader reader;
    Batch batch;
    std::string all;
    for (size_t at = 0; at < input.size() && !batch.quit; at += pieceSize) {
        reader.Take(input.substr(at, pieceSize), batch);
        for (int i = 0; batch.HasWork() && !batch.quit; ++i) {
            Require(i < c_maxRuns);
            runner.Run(batch);
            all += Take(batch.replies);
        }
        store.RemoveExpired(1);
    }
    Require(store.GetExpiringCount() <= store.GetSize());
    return all;
}

}  // namespace

// The first byte says in what pieces the rest is cut.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::string whole = Answer(input, size);
    for (size_t at = 0; at < whole.size();) {
        at = SkipReply(whole, at);
    }
    // INFO tells the time.
    Require(whole == Answer(input, data[0] % 64 + 1U) || whole.find("uptime") != std::string::npos);
    return 0;
}
