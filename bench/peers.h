// The libraries whose loops and connections are measured beside ours, as far as they are there.
#pragma once

#include "bench.h"

#ifdef NXBENCH_HAS_ASIO
#include <asio.hpp>
#endif
#ifdef NXBENCH_HAS_LIBEVENT
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/thread.h>
#endif
#ifdef NXBENCH_HAS_LIBUV
#include <uv.h>
#endif

#ifdef NXBENCH_HAS_LIBEVENT
namespace bench {

inline bufferevent* AddBufferevent(event_base* base, int fd, bufferevent_data_cb onRead,
                                   void* argument = nullptr) {
    bufferevent* const connection = bufferevent_socket_new(base, fd, 0);
    bufferevent_setcb(connection, onRead, nullptr, nullptr, argument);
    Require(bufferevent_enable(connection, EV_READ | EV_WRITE) == 0, "bufferevent_enable");
    return connection;
}

inline void EchoBuffered(bufferevent* connection, void* /*argument*/) {
    Require(evbuffer_add_buffer(bufferevent_get_output(connection),
                                bufferevent_get_input(connection)) == 0,
            "evbuffer_add_buffer");
}

}  // namespace bench
#endif
