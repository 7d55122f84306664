// Inside the library only: what stands between a connection's bytes and its socket's, such as TLS.
#pragma once

#include <memory>
#include <string>

#include <nx/buffer/CNxMessageChain.h>

struct CNxTlsInfo;

// Transforms bytes; knows no socket, no clock and no reactor. Belongs to its connection, on the
// thread of that. std::bad_alloc may leave any operation; the connection then ends.
class CStreamFilter {
public:
    enum class EState {
        HANDSHAKING,  // nothing may be sealed yet
        OPEN,
        ENDED,   // the peer has ended its sending in the way of the filter (close_notify)
        FAILED,  // see GetError; what is in `toSocket` is still to be sent (an alert)
    };

    virtual ~CStreamFilter() = default;

    // Begins: what the first side has to say is appended to `toSocket`.
    virtual EState Start(CNxMessageChain& toSocket) = 0;

    // Takes all of `fromSocket`; appends what it means to `received`, and what has to be answered
    // to `toSocket`.
    virtual EState Open(CNxMessageChain&& fromSocket, CNxMessageChain& received,
                        CNxMessageChain& toSocket) = 0;

    // Takes of `plain` what can be sealed; what is left has to wait until more has come from the
    // socket. While OPEN, and also when the peer has ENDED its side.
    virtual EState Seal(CNxMessageChain& plain, CNxMessageChain& toSocket) = 0;

    // Ends our side in the way of the filter (close_notify). Once.
    virtual void End(CNxMessageChain& toSocket) = 0;

    // The socket has ended. Whether that was right: after the peer has ENDED.
    virtual bool MayEnd() const = 0;

    // After FAILED: what is wrong, for people.
    virtual std::string GetError() const = 0;

    // What was agreed on; null before OPEN.
    virtual const CNxTlsInfo* GetInfo() const { return nullptr; }
};
