// What a connection calls: the user's side of it.
#pragma once

#include <string>

#include <nx/buffer/CNxMessageChain.h>

class CNxConnection;

// Why a connection has ended.
enum class ENxClosed : unsigned char {
    BY_US,      // CloseWhenSent or CloseNow, and what was sent has left
    BY_PEER,    // the peer ended its sending, and everything for it was sent
    IDLE,       // nothing came or went for the idle time-out
    STALLED,    // the peer took no byte for the stall time-out while there were some for it
    HANDSHAKE,  // TLS was not agreed on within the handshake time-out
    LINGERING,  // the peer did not end its side in time after we had ended ours
    LIMIT,      // more waited to be sent, or to be read, than may wait, or a frame was too long
    OUT_OF_MEMORY,
    FAILED,      // the socket failed: `error` says with what
    TLS,         // TLS failed, or the peer ended without close_notify: `text` says what
    LOOP_ENDED,  // its reactor's loop is over
};

struct CNxCloseReason {
    ENxClosed kind = ENxClosed::BY_US;
    // An errno; 0 where there is none.
    int error = 0;
    // For people: "the peer took nothing for 30 s", "Connection reset by peer".
    std::string text;
};

// Implemented by users. One sink may serve any number of connections. All calls come on the thread
// of the connection's reactor, with no lock held, and any operation of any connection may be called
// in them, CloseNow of this one too. An exception other than std::bad_alloc, which ends the
// connection as OUT_OF_MEMORY, ends the process.
//
// The order of the calls: OnOpen once; OnReceive, OnTooLong, OnHighWater, OnLowWater and OnEnd;
// OnClosed once, and nothing after it. Where opening fails (a TLS handshake, say) OnClosed comes
// alone.
class INxConnectionSink {
public:
    // It can be sent to, TLS has been agreed on.
    virtual void OnOpen(CNxConnection& /*connection*/) {}

    // With framing: `received` is one frame. Without: all that came and was not taken. Whatever is
    // left in `received` without framing is there again, before what comes next, at the next call;
    // there is none before something comes. With framing what is left is dropped.
    virtual void OnReceive(CNxConnection& connection, CNxMessageChain& received) = 0;

    // With framing: the next frame is longer than it may be (CNxFraming). AFTER THE CALL THE
    // CONNECTION ENDS AS LIMIT, and what was sent and has not left is lost. Who answers closes it:
    // connection.SendFrame("line too long"), then connection.CloseWhenSent().
    virtual void OnTooLong(CNxConnection& /*connection*/) {}

    // More than the high-water mark waits to be sent; later, once: no more than the low one.
    virtual void OnHighWater(CNxConnection& /*connection*/) {}
    virtual void OnLowWater(CNxConnection& /*connection*/) {}

    // The peer has ended its sending, and all that it sent was received; it may still read. Unless
    // overridden the connection ends when what waits is sent.
    virtual void OnEnd(CNxConnection& connection);

    // The server is to end: finish what is under way and close. Unless overridden the connection
    // ends when what waits is sent. Comes at most once.
    virtual void OnStop(CNxConnection& connection);

    // The connection has ended. The sink may destroy itself here, unless the connection owns it.
    virtual void OnClosed(CNxConnection& /*connection*/, const CNxCloseReason& /*reason*/) {}

    virtual ~INxConnectionSink() = default;
};
