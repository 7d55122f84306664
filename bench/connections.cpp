// Servers with many connections: what 10,000 of them take that wait for their next message, until
// a time-out, and what it costs to send all of them the same. The server has processor 0, the
// client 1.
#include <nx/nx.h>
#include <sys/prctl.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bench.h"
#include "peers.h"
#include "sockets.h"

namespace bench {

namespace {

constexpr int c_idleSeconds = 300;
constexpr size_t c_payload = 1024;

// Of each connection: when it was last heard of. They are looked through once in a while.
void IdleRaw(const Sockets& sockets) {
    std::vector<char> buffer(c_room);
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    const itimerspec interval{{c_idleSeconds, 0}, {c_idleSeconds, 0}};
    Require(timerfd_settime(timer, 0, &interval, nullptr) == 0, "timerfd");
    Sockets watched = sockets;
    watched.push_back(timer);
    std::vector<time_t> heardOf(static_cast<size_t>(timer) + 1);
    RunEpoll(watched, [&](int fd) {
        Require(fd != timer, "the test takes too long");
        EchoOnce(fd, buffer.data());
        heardOf[static_cast<size_t>(fd)] = time(nullptr);
    });
}

void BroadcastRaw(const Sockets& sockets) {
    const std::vector<char> payload = MakeMessage(c_payload);
    std::array<char, 1> asked{};
    RunEpoll({sockets[0]}, [&](int fd) {
        if (recv(fd, asked.data(), asked.size(), 0) == 1) {
            for (const int each : sockets) {
                SendAll(each, payload.data(), c_payload);
            }
        }
    });
}

void IdleNx(const Sockets& sockets) {
    NxEchoSink echo;
    const auto options = std::make_shared<CNxConnectionOptions>();
    options->idleTimeout = CNxTimeValue(c_idleSeconds);
    ServeConnections(sockets, echo, options);
}

void BroadcastNx(const Sockets& sockets) {
    class ToAll : public INxConnectionSink {
    public:
        void OnReceive(CNxConnection& /*connection*/, CNxMessageChain& received) override {
            received.Clear();
            for (const auto& each : m_all) {
                Require(each->SendShared(m_payload) == NX_OK, "SendShared");
            }
        }

        const std::vector<char> m_message = MakeMessage(c_payload);
        const CNxMessageChain m_payload{std::string_view(m_message.data(), m_message.size())};
        NxConnections m_all;
    };
    ToAll toAll;
    ServeConnections(sockets, toAll, std::make_shared<CNxConnectionOptions>(), &toAll.m_all);
}

#ifdef NXBENCH_HAS_ASIO
using Payload = std::shared_ptr<const std::vector<char>>;

class AsioConnection : public std::enable_shared_from_this<AsioConnection> {
public:
    AsioConnection(asio::io_context& context, int fd)
        : m_socket(context, asio::ip::tcp::v4(), fd), m_idle(context) {}

    void Echo() {
        m_idle.expires_after(std::chrono::seconds(c_idleSeconds));
        m_idle.async_wait([self = shared_from_this()](asio::error_code error) {
            Require(error == asio::error::operation_aborted, "the test takes too long");
        });
        m_socket.async_read_some(
            asio::buffer(m_data), [self = shared_from_this()](asio::error_code error, size_t got) {
                Require(!error, "async_read_some");
                asio::async_write(self->m_socket, asio::buffer(self->m_data, got),
                                  [self](asio::error_code failed, size_t) {
                                      Require(!failed, "async_write");
                                      self->Echo();
                                  });
            });
    }

    void Send(const Payload& payload) {
        asio::async_write(m_socket, asio::buffer(*payload),
                          [self = shared_from_this(), payload](asio::error_code error, size_t) {
                              Require(!error, "async_write");
                          });
    }

    template <class Action>
    void OnAsked(Action action) {
        m_socket.async_read_some(asio::buffer(m_data, 1), [=](asio::error_code error, size_t) {
            Require(!error, "async_read_some");
            action();
            OnAsked(action);
        });
    }

private:
    asio::ip::tcp::socket m_socket;
    asio::steady_timer m_idle;
    std::array<char, 1024> m_data;
};

void IdleAsio(const Sockets& sockets) {
    asio::io_context context(1);
    for (const int fd : sockets) {
        std::make_shared<AsioConnection>(context, fd)->Echo();
    }
    context.run();
}

void BroadcastAsio(const Sockets& sockets) {
    asio::io_context context(1);
    const auto payload = std::make_shared<const std::vector<char>>(MakeMessage(c_payload));
    std::vector<std::shared_ptr<AsioConnection>> all;
    for (const int fd : sockets) {
        all.push_back(std::make_shared<AsioConnection>(context, fd));
    }
    all[0]->OnAsked([&all, &payload] {
        for (const auto& each : all) {
            each->Send(payload);
        }
    });
    context.run();
}
#endif

#ifdef NXBENCH_HAS_LIBUV
class UvServer {
public:
    UvServer() { Require(uv_loop_init(&m_loop) == 0, "uv_loop_init"); }

    void Add(int fd, uv_read_cb onRead) {
        auto* const added = new Connection;
        Require(uv_tcp_init(&m_loop, &added->tcp) == 0 && uv_tcp_open(&added->tcp, fd) == 0 &&
                    uv_timer_init(&m_loop, &added->idle) == 0,
                "uv_tcp_open");
        added->tcp.data = this;
        Require(uv_read_start(AsStream(added), GiveBuffer, onRead) == 0, "uv_read_start");
        m_all.push_back(added);
    }

    void StartTimers() {
        for (Connection* const each : m_all) {
            constexpr std::uint64_t ms = std::uint64_t{c_idleSeconds} * 1000;
            Require(uv_timer_start(
                        &each->idle, [](uv_timer_t*) { Require(false, "too long"); }, ms, ms) == 0,
                    "uv_timer_start");
        }
    }

    void Run() { uv_run(&m_loop, UV_RUN_DEFAULT); }

    static void Echo(uv_stream_t* stream, ssize_t got, const uv_buf_t* buffer) {
        if (got > 0) {
            const uv_buf_t reply = uv_buf_init(buffer->base, static_cast<unsigned>(got));
            Require(uv_try_write(stream, &reply, 1) == got, "uv_try_write");
            auto* const tcp = reinterpret_cast<uv_tcp_t*>(stream);
            uv_timer_again(&reinterpret_cast<Connection*>(tcp)->idle);
        }
    }

    static void SendToAll(uv_stream_t* stream, ssize_t got, const uv_buf_t*) {
        auto& server = *static_cast<UvServer*>(stream->data);
        uv_buf_t payload = uv_buf_init(server.m_payload.data(), c_payload);
        if (got > 0) {
            for (Connection* const each : server.m_all) {
                Require(uv_write(new uv_write_t, AsStream(each), &payload, 1, OnWritten) == 0,
                        "uv_write");
            }
        }
    }

private:
    struct Connection {
        uv_tcp_t tcp{};  // the first, so that it can be told from it
        uv_timer_t idle{};
    };

    static uv_stream_t* AsStream(Connection* connection) {
        return reinterpret_cast<uv_stream_t*>(&connection->tcp);
    }

    static void GiveBuffer(uv_handle_t* handle, size_t, uv_buf_t* out) {
        *out = uv_buf_init(static_cast<UvServer*>(handle->data)->m_buffer.data(), c_room);
    }

    static void OnWritten(uv_write_t* request, int status) {
        Require(status == 0, "uv_write");
        delete request;
    }

    uv_loop_t m_loop{};
    std::vector<Connection*> m_all;
    std::vector<char> m_payload = MakeMessage(c_payload);
    std::vector<char> m_buffer = std::vector<char>(c_room);
};

void IdleLibuv(const Sockets& sockets) {
    UvServer server;
    for (const int fd : sockets) {
        server.Add(fd, UvServer::Echo);
    }
    server.StartTimers();
    server.Run();
}

void BroadcastLibuv(const Sockets& sockets) {
    UvServer server;
    for (const int fd : sockets) {
        server.Add(fd, UvServer::SendToAll);
    }
    server.Run();
}
#endif

#ifdef NXBENCH_HAS_LIBEVENT
void IdleBufferevent(const Sockets& sockets) {
    event_base* const base = event_base_new();
    const timeval idle{c_idleSeconds, 0};
    const timeval* const common = event_base_init_common_timeout(base, &idle);
    for (const int fd : sockets) {
        bufferevent* const added = AddBufferevent(base, fd, EchoBuffered);
        Require(bufferevent_set_timeouts(added, common, nullptr) == 0, "bufferevent_set_timeouts");
    }
    event_base_dispatch(base);
}

struct BuffereventsToAll {
    std::vector<bufferevent*> all;
    evbuffer* payload = evbuffer_new();
};

void BroadcastBufferevent(const Sockets& sockets) {
    event_base* const base = event_base_new();
    BuffereventsToAll toAll;
    const std::vector<char> message = MakeMessage(c_payload);
    evbuffer_add(toAll.payload, message.data(), message.size());
    const auto sendToAll = [](bufferevent* asking, void* argument) {
        evbuffer* const asked = bufferevent_get_input(asking);
        evbuffer_drain(asked, evbuffer_get_length(asked));
        const auto& server = *static_cast<BuffereventsToAll*>(argument);
        for (bufferevent* const each : server.all) {
            Require(
                evbuffer_add_buffer_reference(bufferevent_get_output(each), server.payload) == 0,
                "evbuffer_add_buffer_reference");
        }
    };
    for (const int fd : sockets) {
        toAll.all.push_back(AddBufferevent(base, fd, sendToAll, &toAll));
    }
    event_base_dispatch(base);
}
#endif

// Bytes that a process has in memory for itself alone.
double PrivateBytes(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/smaps_rollup");
    std::string word;
    double kib = 0;
    while (file >> word) {
        if (word == "Private_Clean:" || word == "Private_Dirty:") {
            double part = 0;
            file >> part;
            kib += part;
        }
    }
    Require(kib > 0, "smaps_rollup");
    return kib * 1024;
}

// Of a server after each connection has got a message back.
double IdleServer(Serve serve, long connections) {
    const Listener listener;
    const pid_t server = StartServer(listener, connections, serve);
    Client client(listener, static_cast<size_t>(connections), 64);
    client.Run(connections);
    CpuTimeInNs(server);  // at rest
    const double bytes = PrivateBytes(server);
    EndProcess(server);
    return bytes;
}

// What more connections take more.
double Idle(Serve serve) {
    PinTo(0);
    // Servers inherit it: a huge page more or less would be 200 bytes a connection.
    Require(prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0) == 0, "PR_SET_THP_DISABLE");
    const long many = Size(10000);
    const long few = many / 100;
    const double bytes =
        (IdleServer(serve, many) - IdleServer(serve, few)) / static_cast<double>(many - few);
    return std::max(bytes, 1.0);  // of so few as in a smoke run not a page may be needed
}

double Broadcast(Serve serve, long connections) {
    const long count = Size(connections);
    const Listener listener;
    const pid_t server = StartServer(listener, count, serve);
    PinTo(0);
    Client client(listener, static_cast<size_t>(count), c_payload);
    PinTo(1);
    client.AskForAll();  // from here on all connections are served
    const long times = Times(30000) / count + 1;
    const double before = CpuTimeInNs(server);
    for (long i = 0; i < times; ++i) {
        client.AskForAll();
    }
    const double after = CpuTimeInNs(server);
    EndProcess(server);
    return (after - before) / static_cast<double>(times * count);
}

}  // namespace

void AddConnections(std::vector<Case>& cases) {
    const auto add = [&](const char* row, Serve idle) {
        cases.push_back({"memory", "10,000 idle connections, each", row, 0,
                         [=] { return Idle(idle); }, "bytes"});
    };
    add("raw", IdleRaw);
    add("nxbase connection", IdleNx);
#ifdef NXBENCH_HAS_ASIO
    add("Asio", IdleAsio);
#endif
#ifdef NXBENCH_HAS_LIBUV
    add("libuv", IdleLibuv);
#endif
#ifdef NXBENCH_HAS_LIBEVENT
    add("libevent buffered", IdleBufferevent);
#endif
    for (const long connections : {100, 10000}) {
        const auto addBroadcast = [&](const char* row, Serve broadcast) {
            cases.push_back({"broadcast", "1 KiB to connections: {}", row, connections,
                             [=] { return Broadcast(broadcast, connections); }});
        };
        addBroadcast("raw", BroadcastRaw);
        addBroadcast("nxbase connection", BroadcastNx);
#ifdef NXBENCH_HAS_ASIO
        addBroadcast("Asio", BroadcastAsio);
#endif
#ifdef NXBENCH_HAS_LIBUV
        addBroadcast("libuv", BroadcastLibuv);
#endif
#ifdef NXBENCH_HAS_LIBEVENT
        addBroadcast("libevent buffered", BroadcastBufferevent);
#endif
    }
}

}  // namespace bench
