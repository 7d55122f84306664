// How connections behave: limits, time-outs, framing, TLS.
#pragma once

#include <cstddef>
#include <string>

#include <nx/foundation/CNxAutoPtr.h>
#include <nx/foundation/CNxTimeValue.h>
#include <nx/stream/CNxFraming.h>
#include <nx/stream/CNxTlsContext.h>

// Shared by all connections that were made with it (std::shared_ptr<const CNxConnectionOptions>),
// and not changed after that.
struct CNxConnectionOptions {
    CNxFraming framing;

    // Bytes that wait to be sent, after the socket has taken what it could: at more than
    // `highWater` OnHighWater is called, then at no more than `lowWater` (or `highWater`, if that
    // is less) OnLowWater. Both only while OPEN. Beyond `maxUnsent`, 0 for no bound, the connection
    // is dropped. With TLS what is encrypted counts as it is on the wire. Ranges of files count
    // nothing: they take no memory.
    size_t highWater = 1UL << 20;
    size_t lowWater = 256UL << 10;
    size_t maxUnsent = 64UL << 20;

    // Bytes that may wait to be taken by the sink: beyond them nothing is read while they wait, and
    // a sink that is offered so many and takes none, without having paused reading, is not going
    // to: the connection is dropped. At least 1; with framing what a frame may have, if that is
    // more.
    size_t maxUnread = 1UL << 20;

    // Bytes that are read, and of files sent, in one turn of the loop before others have theirs.
    size_t bytesPerTurn = 256UL << 10;

    // Zero for none. Nothing came and nothing went; see ENxClosed. Measured by the monotonic clock
    // to some milliseconds; who is over its time is looked at once more for input that waits. A
    // system clock that is set back holds up those of a loop until it gets another connection,
    // unless the process has chosen otherwise (CNxTimeValue::UseMonotonicClock).
    CNxTimeValue idleTimeout;
    CNxTimeValue stallTimeout{30, 0};
    CNxTimeValue handshakeTimeout{10, 0};

    // After our side has ended: how long what still comes is thrown away until the peer ends its
    // side too, zero for not at all. Closing at once would make the system discard what is on its
    // way to the peer.
    CNxTimeValue lingerTimeout{2, 0};

    // TCP only (tcp(7), socket(7)): TCP_NODELAY, SO_KEEPALIVE.
    bool noDelay = true;
    bool keepAlive = false;

    // None: plain. `tlsName` is for clients: the server's name, which its certificate must have,
    // and which is sent (SNI); a CNxConnector that is given none sets the host's.
    CNxAutoPtr<CNxTlsContext> tls;
    std::string tlsName;
};
