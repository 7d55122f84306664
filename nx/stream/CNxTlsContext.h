// What TLS needs beside the connection, read from its files once: certificates, keys, whom to
// trust. Through OpenSSL 3; a library built without it (NXBASE_TLS=OFF) refuses to make one.
#pragma once

#include <memory>
#include <string>

#include <nx/foundation/CNxAutoPtr.h>
#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/CNxReferenceControl.h>
#include <nx/foundation/NxResult.h>
#include <nx/stream/CNxTlsOptions.h>

class CStreamFilter;

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
