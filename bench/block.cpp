// Bytes in memory: appending to a buffer, and sharing a piece without copying it. The time of each,
// in a process that has threads: reference counts are atomic then.
#include <nx/nx.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"

#ifdef NXBENCH_HAS_ASIO
#include <asio.hpp>
#endif
#ifdef NXBENCH_HAS_LIBEVENT
#include <event2/buffer.h>
#endif

namespace bench {

namespace {

constexpr size_t c_piece = 64;
constexpr size_t c_full = 65536;
constexpr size_t c_shared = 4096;

// Each kind below is appended to until it is full, and then emptied. Last: its last byte.
struct RawBuffer {
    void Append(const char* data) { text.append(data, c_piece); }
    size_t GetSize() const { return text.size(); }
    char Last() const { return text.back(); }
    void Clear() { text.clear(); }
    std::string text;
};

struct NxBuffer {
    void Append(const char* data) { Require(block.Write(data, c_piece) == NX_OK, "Write"); }
    size_t GetSize() const { return block.GetLength(); }
    char Last() const { return block.GetWritePtr()[-1]; }
    void Clear() { block.RewindChained(); }
    CNxMessageBlock block{c_full};
};

#ifdef NXBENCH_HAS_ASIO
struct AsioBuffer {
    void Append(const char* data) { buffer.sputn(data, c_piece); }
    size_t GetSize() const { return buffer.size(); }
    char Last() const { return static_cast<const char*>(buffer.data().data())[c_full - 1]; }
    void Clear() { buffer.consume(c_full); }
    asio::streambuf buffer;
};
#endif

#ifdef NXBENCH_HAS_LIBEVENT
struct LibeventBuffer {
    void Append(const char* data) {
        Require(evbuffer_add(buffer, data, c_piece) == 0, "evbuffer_add");
    }
    size_t GetSize() const { return evbuffer_get_length(buffer); }
    char Last() const { return reinterpret_cast<char*>(evbuffer_pullup(buffer, -1))[c_full - 1]; }
    void Clear() { evbuffer_drain(buffer, c_full); }
    evbuffer* const buffer = evbuffer_new();
};
#endif

void StartIdleThread() {
    std::thread([] { pause(); }).detach();
}

template <class Buffer>
double Append() {
    StartIdleThread();
    PinTo(1);
    Buffer buffer;
    std::array<char, c_piece> piece{};
    const long fills = Times(10000);
    double spent = 0;
    for (long i = 0; i < fills; ++i) {
        piece.back() = static_cast<char>(i);
        const double start = NowInNs();
        for (size_t n = 0; n < c_full / c_piece; ++n) {
            buffer.Append(piece.data());
        }
        spent += NowInNs() - start;
        Require(buffer.GetSize() == c_full && buffer.Last() == piece.back(), "bytes are missing");
        buffer.Clear();
    }
    return spent / static_cast<double>(fills * static_cast<long>(c_full / c_piece));
}

// Each kind below shares a piece of memory with a new owner, and returns what that one sees at its
// end.
struct RawShare {
    char Share() const {
        const std::shared_ptr<std::string> shared = text;
        return shared->back();
    }
    std::shared_ptr<std::string> text = std::make_shared<std::string>(c_shared, 'x');
};

struct NxShare {
    NxShare() { Require(block.Write(std::string(c_shared, 'x').data(), c_shared) == NX_OK, ""); }
    char Share() const {
        CNxMessageBlock* const shared = block.DuplicateTopLevel();
        const char last = shared->GetWritePtr()[-1];
        shared->DestroyChained();
        return last;
    }
    CNxMessageBlock block{c_shared};
};

#ifdef NXBENCH_HAS_LIBEVENT
struct LibeventShare {
    LibeventShare() { evbuffer_add(buffer, std::string(c_shared, 'x').data(), c_shared); }
    char Share() const {
        evbuffer* const shared = evbuffer_new();
        evbuffer_add_buffer_reference(shared, buffer);
        evbuffer_iovec piece{};
        evbuffer_peek(shared, -1, nullptr, &piece, 1);
        const char last = static_cast<char*>(piece.iov_base)[c_shared - 1];
        evbuffer_free(shared);
        return last;
    }
    evbuffer* const buffer = evbuffer_new();
};
#endif

template <class Sharer>
double Share() {
    StartIdleThread();
    PinTo(1);
    const Sharer sharer;
    const long times = Times(2000000);
    long seen = 0;
    const double start = NowInNs();
    for (long i = 0; i < times; ++i) {
        seen += sharer.Share() == 'x' ? 1 : 0;
    }
    const double end = NowInNs();
    Require(seen == times, "bytes are missing");
    return (end - start) / static_cast<double>(times);
}

}  // namespace

void AddBlock(std::vector<Case>& cases) {
    const auto add = [&](const char* name, const char* row, double (*run)()) {
        cases.push_back({"block", name, row, 0, run});
    };
    const char* const append = "append 64 bytes";
    add(append, "raw", Append<RawBuffer>);
    add(append, "nxbase", Append<NxBuffer>);
#ifdef NXBENCH_HAS_ASIO
    add(append, "Asio", Append<AsioBuffer>);
#endif
#ifdef NXBENCH_HAS_LIBEVENT
    add(append, "libevent", Append<LibeventBuffer>);
#endif
    const char* const share = "share and release 4 KiB";
    add(share, "raw", Share<RawShare>);
    add(share, "nxbase", Share<NxShare>);
#ifdef NXBENCH_HAS_LIBEVENT
    add(share, "libevent", Share<LibeventShare>);
#endif
}

}  // namespace bench
