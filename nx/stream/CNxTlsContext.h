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
    // PEM files, both or none. A server needs them; a client that has them offers its certificate.
    // They may be one file. A key that is encrypted is refused: nobody is asked for a passphrase.
    std::string certificateFile;  // with the chain behind it
    std::string keyFile;

    // Whom to trust, PEM: a file, a folder of hashed names (openssl-rehash(1)), or, when both are
    // empty, what the system trusts, which is a great many. The folder's files, and the system's,
    // are read when a certificate asks for them, on the connection's thread.
    std::string caFile;
    std::string caFolder;

    // A client verifies the server's chain and name unless this is off. A server asks for a
    // client's certificate, and refuses who has none, only when `requirePeerCertificate` is on; it
    // looks at no name in it (see CNxTlsInfo::peerSubject). With TLS 1.3 a client that is refused
    // learns it after it could already send.
    bool verifyPeer = true;
    bool requirePeerCertificate = false;

    // TLS 1.2 is the least; off: 1.3 alone.
    bool allowTls12 = true;

    // Application protocols (ALPN, RFC 7301), of 1 to 255 bytes each: the first of the server's
    // that the client has too counts. A server refuses a client that offers only others. Where one
    // side has none, none is agreed on.
    std::vector<std::string> protocols;

    // Sessions are resumed: servers hand out tickets, clients keep the last session of each name,
    // of the 1,000 names that were used last. What is resumed was verified when it began, and not
    // again. The keys of the tickets live as long as the context, or until Reload: a server that
    // runs for months and allows TLS 1.2 reloads every day, for whoever gets hold of such a key can
    // read the connections of TLS 1.2 that it has resumed.
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
// operation; after a fork(2) in a process with threads the child makes contexts of its own.
//
// What OpenSSL's configuration file says (openssl.cnf, config(5): its security level, say) holds
// here too. Renegotiation is refused and nothing is compressed. OpenSSL is told not to clean up at
// exit(), since connections may end later than that; this is in vain in a program that has used
// OpenSSL before.
class CNxTlsContext : public CNxReferenceControlT<CNxMutexThread> {
public:
    // NX_OK with the context in `out`. Otherwise `out` stays as it was, and `error` says what is
    // wrong: NX_ERROR_FAILURE when a file cannot be read or does not fit (with its path and
    // OpenSSL's text: "/etc/x/key.pem: key values mismatch"), or without memory;
    // NX_ERROR_INVALID_ARG when one of certificate and key is missing, or a protocol's name has not
    // 1 to 255 bytes; NX_ERROR_NOT_IMPLEMENTED when the library has no TLS. Blocks for the disk.
    [[nodiscard]] static NxResult CreateServer(CNxAutoPtr<CNxTlsContext>& out,
                                               const CNxTlsOptions& options, std::string& error);
    [[nodiscard]] static NxResult CreateClient(CNxAutoPtr<CNxTlsContext>& out,
                                               const CNxTlsOptions& options, std::string& error);

    // Reads the files anew: connections made from now on use them, the others go on. No session
    // from before is resumed any more. Results as above; after a failure everything is as before.
    [[nodiscard]] NxResult Reload(std::string& error);

    // For connections: a filter of one side of one connection, which keeps what it needs of the
    // context. `name` is the server's for a client (a host name or an address in figures), unused
    // for a server. Without a name a client that does not verify sends none and resumes nothing;
    // one that verifies gets no filter. Throws std::bad_alloc; null with the reason in `error` when
    // the filter cannot be made.
    std::unique_ptr<CStreamFilter> MakeFilter(const std::string& name, std::string& error);

    ~CNxTlsContext() override;

private:
    class CImp;
    explicit CNxTlsContext(std::unique_ptr<CImp> imp);

    const std::unique_ptr<CImp> m_imp;
};
