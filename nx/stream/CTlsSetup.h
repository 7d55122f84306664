// Inside the library only: the files and options of a TLS context as OpenSSL wants them.
#pragma once

#include <nx/foundation/NxResult.h>
#include <nx/stream/CNxTlsOptions.h>
#include <nx/stream/CTlsSessions.h>

#include <memory>
#include <string>

// One reading of the files: never changed after it was made, shared by the connections that were
// made with it. Its sessions are those of these files and options: none is resumed with others.
class CTlsSetup {
public:
    CTlsSetup() = default;
    CTlsSetup(const CTlsSetup&) = delete;
    CTlsSetup& operator=(const CTlsSetup&) = delete;

    // Results as CNxTlsContext::CreateServer; throws std::bad_alloc. After a failure it is of no
    // use any more.
    [[nodiscard]] NxResult Init(bool isServer, const CNxTlsOptions& options, std::string& error);

    bool IsServer() const { return m_isServer; }
    bool IsVerifying() const;
    // Of a client that resumes sessions; else null.
    CTlsSessions* GetSessions() { return m_isResuming && !m_isServer ? &m_sessions : nullptr; }
    SSL_CTX* GetContext() const { return m_context.get(); }

private:
    void SetTickets();
    bool SetProtocols();
    static int ChooseProtocol(SSL* ssl, const unsigned char** chosen, unsigned char* chosenSize,
                              const unsigned char* offered, unsigned offeredSize, void* self);

    bool m_isServer = false;
    bool m_isResuming = true;
    std::string m_protocols;  // as ALPN has them: each behind its length in a byte
    CTlsSessions m_sessions;
    CSslContextPtr m_context;
};
