// Servers that send back what they receive, beside a client that keeps one message under way on
// each connection: the processor time that the server takes for a message. The server has processor
// 0 and the client 1; of a single connection both are on 0, so that each wake-up is of one kind.
#include <nx/nx.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

#include "bench.h"
#include "peers.h"
#include "sockets.h"

#ifdef NXBENCH_HAS_LIBURING
#include <liburing.h>
#endif

namespace bench {

namespace {

// Until the call would block.
void ServeRaw(const Sockets& sockets) {
    std::vector<char> buffer(c_room);
    RunEpoll(sockets, [&](int fd) {
        while (EchoOnce(fd, buffer.data())) {
        }
    });
}

// One call each time: a stream that gives less than it was asked for is empty, says epoll(7). The
// least there is for messages that arrive whole.
void ServeRawOneReceive(const Sockets& sockets) {
    std::vector<char> buffer(c_room);
    RunEpoll(sockets, [&](int fd) { EchoOnce(fd, buffer.data()); });
}

class NxEcho : public INxEventHandler {
public:
    NxEcho(INxReactor& reactor, int fd) : m_reactor(reactor), m_fd(fd) {}
    int GetHandle() const override { return m_fd; }
    int OnInput(int fd) override {
        char* const buffer = m_reactor.GetBufferPtr();
        const auto room = static_cast<ssize_t>(m_reactor.GetBufferSize());
        ssize_t got = room;
        while (got == room) {
            got = recv(fd, buffer, static_cast<size_t>(room), 0);
            if (got <= 0) {
                return got == -1 && errno == EAGAIN ? 0 : -1;
            }
            SendAll(fd, buffer, got);
        }
        return 0;
    }

private:
    INxReactor& m_reactor;
    const int m_fd;
};

void ServeNx(const Sockets& sockets) {
    ServeOnReactor(sockets, [](INxReactor& reactor, int fd) {
        return reactor.RegisterHandler(new NxEcho(reactor, fd), NX_MASK_READ);
    });
}

void ServeNxConnection(const Sockets& sockets) {
    NxEchoSink echo;
    ServeConnections(sockets, echo, std::make_shared<CNxConnectionOptions>());
}

#ifdef NXBENCH_HAS_ASIO
class AsioEcho : public std::enable_shared_from_this<AsioEcho> {
public:
    AsioEcho(asio::io_context& context, int fd) : m_socket(context, asio::ip::tcp::v4(), fd) {}

    void Read() {
        m_socket.async_read_some(asio::buffer(m_data),
                                 [self = shared_from_this()](asio::error_code error, size_t got) {
                                     Require(!error, "async_read_some");
                                     self->Write(got);
                                 });
    }

private:
    void Write(size_t size) {
        asio::async_write(m_socket, asio::buffer(m_data, size),
                          [self = shared_from_this()](asio::error_code error, size_t) {
                              Require(!error, "async_write");
                              self->Read();
                          });
    }

    asio::ip::tcp::socket m_socket;
    std::array<char, 16384> m_data{};
};

void ServeAsio(const Sockets& sockets) {
    asio::io_context context(1);
    for (const int fd : sockets) {
        std::make_shared<AsioEcho>(context, fd)->Read();
    }
    context.run();
}
#endif

#ifdef NXBENCH_HAS_LIBUV
void OnUvRead(uv_stream_t* stream, ssize_t got, const uv_buf_t* buffer) {
    if (got > 0) {
        const uv_buf_t reply = uv_buf_init(buffer->base, static_cast<unsigned>(got));
        Require(uv_try_write(stream, &reply, 1) == got, "uv_try_write");
    }
}

void ServeLibuv(const Sockets& sockets) {
    uv_loop_t loop{};
    Require(uv_loop_init(&loop) == 0, "uv_loop_init");
    std::vector<char> buffer(c_room);
    const auto giveBuffer = [](uv_handle_t* handle, size_t, uv_buf_t* out) {
        *out = uv_buf_init(static_cast<char*>(handle->data), c_room);
    };
    std::vector<uv_tcp_t> handles(sockets.size());
    for (size_t i = 0; i < sockets.size(); ++i) {
        Require(uv_tcp_init(&loop, &handles[i]) == 0 && uv_tcp_open(&handles[i], sockets[i]) == 0,
                "uv_tcp_open");
        handles[i].data = buffer.data();
        Require(
            uv_read_start(reinterpret_cast<uv_stream_t*>(&handles[i]), giveBuffer, OnUvRead) == 0,
            "uv_read_start");
    }
    uv_run(&loop, UV_RUN_DEFAULT);
}
#endif

#ifdef NXBENCH_HAS_LIBEVENT
void ServeLibevent(const Sockets& sockets) {
    event_base* const base = event_base_new();
    std::vector<char> buffer(c_room);
    for (const int fd : sockets) {
        event* const reading = event_new(
            base, fd, EV_READ | EV_PERSIST,
            [](evutil_socket_t socket, short, void* argument) {
                EchoOnce(socket, static_cast<char*>(argument));
            },
            buffer.data());
        Require(event_add(reading, nullptr) == 0, "event_add");
    }
    event_base_dispatch(base);
}

void ServeBufferevent(const Sockets& sockets) {
    event_base* const base = event_base_new();
    for (const int fd : sockets) {
        AddBufferevent(base, fd, EchoBuffered);
    }
    event_base_dispatch(base);
}
#endif

#ifdef NXBENCH_HAS_LIBURING
// One request to receive for each socket, which goes on giving; the kernel takes the buffers from a
// ring, and they go back when they have been sent.
class UringEcho {
public:
    explicit UringEcho(const Sockets& sockets) : m_sizes(c_buffers), m_memory(c_buffers * c_size) {
        io_uring_params params{};
        params.flags = IORING_SETUP_CQSIZE | IORING_SETUP_SINGLE_ISSUER |
                       IORING_SETUP_COOP_TASKRUN | IORING_SETUP_DEFER_TASKRUN;
        params.cq_entries = 32768;
        Require(io_uring_queue_init_params(4096, &m_ring, &params) == 0, "io_uring_queue_init");
        io_uring_buf_reg registration{};
        m_buffers = static_cast<io_uring_buf_ring*>(
            std::aligned_alloc(4096, c_buffers * sizeof(io_uring_buf)));
        registration.ring_addr = reinterpret_cast<__u64>(m_buffers);
        registration.ring_entries = c_buffers;
        Require(io_uring_register_buf_ring(&m_ring, &registration, 0) == 0, "buffer ring");
        io_uring_buf_ring_init(m_buffers);
        for (unsigned short id = 0; id < c_buffers; ++id) {
            GiveBack(id);
        }
        for (const int fd : sockets) {
            Receive(fd);
        }
    }

    [[noreturn]] void Run() {
        for (;;) {
            io_uring_submit_and_wait(&m_ring, 1);
            io_uring_cqe* cqe = nullptr;
            unsigned head = 0;
            unsigned count = 0;
            io_uring_for_each_cqe(&m_ring, head, cqe) {
                ++count;
                OnCompleted(*cqe);
            }
            io_uring_cq_advance(&m_ring, count);
        }
    }

private:
    static constexpr unsigned short c_buffers = 4096;
    static constexpr size_t c_size = 16384;
    static constexpr __u64 c_isSend = 1ull << 63;

    io_uring_sqe& NextSqe() {
        io_uring_sqe* sqe = io_uring_get_sqe(&m_ring);
        if (sqe == nullptr) {
            io_uring_submit(&m_ring);
            sqe = io_uring_get_sqe(&m_ring);
        }
        return *sqe;
    }

    char* BufferAt(unsigned short id) { return m_memory.data() + id * c_size; }

    void GiveBack(unsigned short id) {
        io_uring_buf_ring_add(m_buffers, BufferAt(id), c_size, id,
                              io_uring_buf_ring_mask(c_buffers), 0);
        io_uring_buf_ring_advance(m_buffers, 1);
    }

    void Receive(int fd) {
        io_uring_sqe& sqe = NextSqe();
        io_uring_prep_recv_multishot(&sqe, fd, nullptr, 0, 0);
        sqe.flags |= IOSQE_BUFFER_SELECT;
        sqe.buf_group = 0;
        sqe.user_data = static_cast<__u64>(fd);
    }

    void OnCompleted(const io_uring_cqe& cqe) {
        if ((cqe.user_data & c_isSend) != 0) {
            const auto id = static_cast<unsigned short>(cqe.user_data & 0xFFFF);
            Require(cqe.res == m_sizes[id], "send");
            GiveBack(id);
            return;
        }
        const int fd = static_cast<int>(cqe.user_data);
        Require(cqe.res > 0 || cqe.res == -ENOBUFS, "recv");
        if (cqe.res > 0) {
            const auto id = static_cast<unsigned short>(cqe.flags >> IORING_CQE_BUFFER_SHIFT);
            m_sizes[id] = cqe.res;
            io_uring_sqe& sqe = NextSqe();
            io_uring_prep_send(&sqe, fd, BufferAt(id), static_cast<size_t>(cqe.res), MSG_WAITALL);
            sqe.user_data = c_isSend | id;
        }
        if ((cqe.flags & IORING_CQE_F_MORE) == 0) {
            Receive(fd);
        }
    }

    io_uring m_ring{};
    io_uring_buf_ring* m_buffers = nullptr;
    std::vector<int> m_sizes;
    std::vector<char> m_memory;
};

void ServeUring(const Sockets& sockets) {
    UringEcho(sockets).Run();
}
#endif

double Echo(Serve serve, long connections, size_t size) {
    const long count = Size(connections);
    const Listener listener;
    const pid_t server = StartServer(listener, count, serve);
    PinTo(0);  // connecting takes long when each connection wakes the other processor
    Client client(listener, static_cast<size_t>(count), size);
    PinTo(connections == 1 ? 0 : 1);
    client.Run(count);  // from here on all connections are served
    const long messages = std::max(count, Times(size > 1000 ? 12000 : 30000));
    const double before = CpuTimeInNs(server);
    client.Run(messages);
    const double after = CpuTimeInNs(server);
    EndProcess(server);
    return (after - before) / static_cast<double>(messages);
}

void AddRows(std::vector<Case>& cases, const char* name, long connections, size_t size) {
    const auto add = [&](const char* row, Serve serve) {
        cases.push_back(
            {"echo", name, row, connections, [=] { return Echo(serve, connections, size); }});
    };
    add("raw", ServeRaw);
    add("raw, one receive", ServeRawOneReceive);
    add("nxbase", ServeNx);
    add("nxbase connection", ServeNxConnection);
#ifdef NXBENCH_HAS_ASIO
    add("Asio", ServeAsio);
#endif
#ifdef NXBENCH_HAS_LIBUV
    add("libuv", ServeLibuv);
#endif
#ifdef NXBENCH_HAS_LIBEVENT
    add("libevent", ServeLibevent);
    add("libevent buffered", ServeBufferevent);
#endif
#ifdef NXBENCH_HAS_LIBURING
    add("raw io_uring", ServeUring);
#endif
}

}  // namespace

void AddEcho(std::vector<Case>& cases) {
    for (const long connections : {1, 10, 100, 1000, 10000}) {
        AddRows(cases, "64 bytes, connections: {}", connections, 64);
    }
    for (const long connections : {100, 1000}) {
        AddRows(cases, "16 KiB, connections: {}", connections, 16384);
    }
}

}  // namespace bench
