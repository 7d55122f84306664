// What TLS is asked for, and what it has agreed on.
#pragma once

#include <string>
#include <vector>

// A plain value.
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
