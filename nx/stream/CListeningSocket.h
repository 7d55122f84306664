// Inside the library only: a socket that listens on an endpoint of any kind.
#pragma once

#include <nx/foundation/NxResult.h>
#include <nx/net/CNxEndpoint.h>
#include <nx/net/CNxSocket.h>
#include <nx/stream/CNxAcceptorOptions.h>
#include <nx/stream/CUnixPath.h>

// One thread at a time. Closed by its end, and with it the path of a unix socket is removed.
class CListeningSocket {
public:
    CListeningSocket() = default;
    ~CListeningSocket() { Close(); }
    CListeningSocket(const CListeningSocket&) = delete;
    CListeningSocket& operator=(const CListeningSocket&) = delete;

    // Non-blocking. As CNxAcceptor::Open says, for an endpoint that has a family, while closed:
    // NX_OK, or NX_ERROR_FAILURE with errno and closed.
    [[nodiscard]] NxResult Open(const CNxEndpoint& endpoint, const CNxAcceptorOptions& options);
    void Close();

    // -1 when closed.
    int GetHandle() const { return m_socket.GetHandle(); }

    // With the port or name that the system has chosen; of no family when closed.
    const CNxEndpoint& GetEndpoint() const { return m_endpoint; }

private:
    [[nodiscard]] bool OpenAt(const CNxEndpoint& endpoint, const CNxAcceptorOptions& options);
    [[nodiscard]] bool Bind(const CNxEndpoint& endpoint, const CNxAcceptorOptions& options);
    [[nodiscard]] bool SetOptions(const CNxEndpoint& endpoint, const CNxAcceptorOptions& options);
    [[nodiscard]] bool SetOption(int level, int option, int value);

    CNxSocketBase m_socket;
    CUnixPath m_path;
    CNxEndpoint m_endpoint;
};
