// What TLS needs beside the connection: certificates, keys, whom to trust, what to agree on.
// Through OpenSSL 3; a library built without it (NXBASE_TLS=OFF) refuses to make one.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <nx/foundation/CNxAutoPtr.h>
#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/CNxReferenceControl.h>
#include <nx/foundation/NxResult.h>

class CStreamFilter;

struct CNxTlsOptions {
    // PEM files. A server needs both; a client that has them offers its certificate.
    std::string certificateFile;  // with the chain behind it
    std::string keyFile;

    // Whom to trust, PEM: a file, a folder of hashed names (openssl-rehash(1)), or, when both are
    // empty, what the system trusts.
    std::string caFile;
    std::string caFolder;

    // A client verifies the server's chain and name unless this is off. A server asks for a
    // client's certificate, and refuses who has none, only when `requirePeerCertificate` is on.
    bool verifyPeer = true;
    bool requirePeerCertificate = false;

    // TLS 1.2 is the least; off: 1.3 alone.
    bool allowTls12 = true;

    // Application protocols (ALPN, RFC 7301), the first that both have counts; empty for none.
    std::vector<std::string> protocols;

    // Sessions are resumed: servers hand out tickets, clients keep the last session of each name.
    bool resume = true;
};

// What two sides have agreed on.
struct CNxTlsInfo {
    std::string version;      // "TLSv1.3"
    std::string cipher;       // OpenSSL's name
    std::string protocol;     // ALPN; "" for none
    std::string serverName;   // SNI, as the client sent it
    std::string peerSubject;  // of the peer's certificate (RFC 2253); "" for none
    bool isResumed = false;
};

// Shared by the connections that use it, on any threads; counted. Any thread may call any
// operation.
class CNxTlsContext : public CNxReferenceControlT<CNxMutexThread> {
public:
    // NX_OK with the context in `out`. NX_ERROR_FAILURE when a file cannot be read or does not fit,
    // or without memory, with OpenSSL's text in `error`; NX_ERROR_NOT_IMPLEMENTED when the library
    // has no TLS; `out` then stays as it was.
    [[nodiscard]] static NxResult CreateServer(CNxAutoPtr<CNxTlsContext>& out,
                                               const CNxTlsOptions& options, std::string& error);
    [[nodiscard]] static NxResult CreateClient(CNxAutoPtr<CNxTlsContext>& out,
                                               const CNxTlsOptions& options, std::string& error);

    // Reads the files anew: connections made from now on use them, the others go on. Results as
    // above; after a failure everything is as before.
    [[nodiscard]] NxResult Reload(std::string& error);

    // For connections: a filter of one side of one connection. `name` is the server's for a client
    // (a host name or an address in figures), unused for a server. Throws std::bad_alloc; null with
    // OpenSSL's text in `error` when it cannot be made.
    std::unique_ptr<CStreamFilter> MakeFilter(const std::string& name, std::string& error);

    ~CNxTlsContext() override;

private:
    class CImp;
    explicit CNxTlsContext(std::unique_ptr<CImp> imp);

    const std::unique_ptr<CImp> m_imp;
};
