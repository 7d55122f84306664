#include <nx/buffer/CNxMessageBlock.h>
#include <nx/process/whole_file.h>
#include <nx/stream/CTlsSetup.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <system_error>

namespace {

constexpr unsigned long c_maxFileSize = 16UL << 20;

// Without this OpenSSL would ask for the passphrase of a key on the terminal.
int RefusePassphrase(char* /*buffer*/, int /*size*/, int /*isWriting*/, void* isEncrypted) {
    *static_cast<bool*>(isEncrypted) = true;
    return -1;
}

bool Fail(std::string& error, const std::string& path, const std::string& reason) {
    error = path + ": " + reason;
    return false;
}

bool FailAsOpenSsl(std::string& error, const std::string& path) {
    return Fail(error, path, TakeOpenSslError());
}

// A file in memory, read through a descriptor that no child inherits. Wiped at the end: it may hold
// a key.
class CPemFile {
public:
    CPemFile() = default;
    ~CPemFile() {
        m_bio.reset();
        if (m_content != nullptr) {
            OPENSSL_cleanse(m_content->GetReadPtr(), m_content->GetLength());
            m_content->DestroyChained();
        }
    }
    CPemFile(const CPemFile&) = delete;
    CPemFile& operator=(const CPemFile&) = delete;

    bool Read(const std::string& path, std::string& error) {
        const NxResult result = cnx_read_file(path.c_str(), m_content, c_maxFileSize);
        if (result != NX_OK) {
            const int reason = result == NX_ERROR_FAILURE ? errno : ENOENT;
            return Fail(error, path,
                        result == NX_ERROR_INVALID_ARG ? "not a regular file"
                                                       : std::generic_category().message(reason));
        }
        m_bio.reset(
            BIO_new_mem_buf(m_content->GetReadPtr(), static_cast<int>(m_content->GetLength())));
        return m_bio != nullptr || FailAsOpenSsl(error, path);
    }

    BIO* GetBio() const { return m_bio.get(); }

private:
    CNxMessageBlock* m_content = nullptr;
    CBioPtr m_bio;
};

// Calls `take` with each certificate and its number, from 0. False, with the reason in `error`,
// when there is none, one is broken, or `take` returns false.
template <class Take>
bool ReadCertificates(const std::string& path, std::string& error, const Take& take) {
    CPemFile file;
    if (!file.Read(path, error)) {
        return false;
    }
    int count = 0;
    bool isEncrypted = false;
    while (const CCertificatePtr certificate{
        PEM_read_bio_X509_AUX(file.GetBio(), nullptr, &RefusePassphrase, &isEncrypted)}) {
        if (!take(certificate.get(), count++)) {
            return FailAsOpenSsl(error, path);
        }
    }
    // That is how the end is told.
    const bool isEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
    if (count == 0 || !isEnd) {
        return FailAsOpenSsl(error, path);
    }
    ERR_clear_error();
    return true;
}

bool UseCertificate(SSL_CTX* context, const CNxTlsOptions& options, std::string& error) {
    return ReadCertificates(options.certificateFile, error, [&](X509* certificate, int number) {
        return number == 0 ? SSL_CTX_use_certificate(context, certificate) == 1
                           : SSL_CTX_add1_chain_cert(context, certificate) == 1;
    });
}

bool UseKey(SSL_CTX* context, const CNxTlsOptions& options, std::string& error) {
    CPemFile file;
    if (!file.Read(options.keyFile, error)) {
        return false;
    }
    bool isEncrypted = false;
    const CKeyPtr key(
        PEM_read_bio_PrivateKey(file.GetBio(), nullptr, &RefusePassphrase, &isEncrypted));
    if (isEncrypted) {
        return Fail(error, options.keyFile, "the key is encrypted");
    }
    const bool isUsed = key != nullptr && SSL_CTX_use_PrivateKey(context, key.get()) == 1 &&
                        SSL_CTX_check_private_key(context) == 1;
    return isUsed || FailAsOpenSsl(error, options.keyFile);
}

// A server tells its clients whom it trusts, so that they can choose a certificate.
bool TrustFile(SSL_CTX* context, bool isServer, const CNxTlsOptions& options, std::string& error) {
    return ReadCertificates(options.caFile, error, [&](X509* certificate, int /*number*/) {
        return X509_STORE_add_cert(SSL_CTX_get_cert_store(context), certificate) == 1 &&
               (!isServer || SSL_CTX_add_client_CA(context, certificate) == 1);
    });
}

bool TrustFolder(SSL_CTX* context, const CNxTlsOptions& options, std::string& error) {
    struct stat status {};
    if (stat(options.caFolder.c_str(), &status) != 0) {
        return Fail(error, options.caFolder, std::generic_category().message(errno));
    }
    if (!S_ISDIR(status.st_mode)) {
        return Fail(error, options.caFolder, "not a folder");
    }
    return SSL_CTX_load_verify_dir(context, options.caFolder.c_str()) == 1 ||
           FailAsOpenSsl(error, options.caFolder);
}

bool SetTrust(SSL_CTX* context, bool isServer, const CNxTlsOptions& options, std::string& error) {
    if (!options.caFile.empty() && !TrustFile(context, isServer, options, error)) {
        return false;
    }
    if (!options.caFolder.empty() && !TrustFolder(context, options, error)) {
        return false;
    }
    const bool isVerifying = SSL_CTX_get_verify_mode(context) != SSL_VERIFY_NONE;
    const bool needsSystem = isVerifying && options.caFile.empty() && options.caFolder.empty();
    return !needsSystem || SSL_CTX_set_default_verify_paths(context) == 1 ||
           FailAsOpenSsl(error, "what the system trusts");
}

bool LoadFiles(SSL_CTX* context, bool isServer, const CNxTlsOptions& options, std::string& error) {
    const bool hasCertificate = !options.certificateFile.empty();
    return (!hasCertificate ||
            (UseCertificate(context, options, error) && UseKey(context, options, error))) &&
           SetTrust(context, isServer, options, error);
}

// Null when they make sense.
const char* FindFault(bool isServer, const CNxTlsOptions& options) {
    const bool hasCertificate = !options.certificateFile.empty();
    if (hasCertificate == options.keyFile.empty() || (isServer && !hasCertificate)) {
        return "certificate and key are needed";
    }
    const bool isAnyBad =
        std::any_of(options.protocols.begin(), options.protocols.end(),
                    [](const std::string& name) { return name.empty() || name.size() > 255; });
    return isAnyBad ? "a protocol's name has not 1 to 255 bytes" : nullptr;
}

void SetOptions(SSL_CTX* context, bool isServer, const CNxTlsOptions& options) {
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    // Connections that are idle are small.
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);

    const bool isVerifying = isServer ? options.requirePeerCertificate : options.verifyPeer;
    SSL_CTX_set_verify(
        context, isVerifying ? SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT : SSL_VERIFY_NONE,
        nullptr);
    // Without an answer OpenSSL forgets the name where a session of TLS 1.2 is resumed.
    SSL_CTX_set_tlsext_servername_callback(
        context, +[](SSL*, int*, void*) { return SSL_TLSEXT_ERR_OK; });
}

bool SetVersions(SSL_CTX* context, const CNxTlsOptions& options) {
    return SSL_CTX_set_min_proto_version(context,
                                         options.allowTls12 ? TLS1_2_VERSION : TLS1_3_VERSION) == 1;
}

}  // namespace

NxResult CTlsSetup::Init(bool isServer, const CNxTlsOptions& options, std::string& error) {
    // Connections may live until the library's own tear-down at exit(): what OpenSSL keeps for the
    // process goes with the process.
    OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr);
    ERR_clear_error();
    if (const char* const fault = FindFault(isServer, options)) {
        error = fault;
        return NX_ERROR_INVALID_ARG;
    }
    m_isServer = isServer;
    m_isResuming = options.resume;
    for (const std::string& name : options.protocols) {
        m_protocols.append(1, static_cast<char>(name.size())).append(name);
    }
    m_context.reset(SSL_CTX_new(isServer ? TLS_server_method() : TLS_client_method()));
    if (m_context == nullptr || !SetVersions(m_context.get(), options) || !SetProtocols()) {
        error = TakeOpenSslError();
        return NX_ERROR_FAILURE;
    }
    SetOptions(m_context.get(), isServer, options);
    SetTickets();
    return LoadFiles(m_context.get(), isServer, options, error) ? NX_OK : NX_ERROR_FAILURE;
}

bool CTlsSetup::IsVerifying() const {
    return SSL_CTX_get_verify_mode(m_context.get()) != SSL_VERIFY_NONE;
}

// The sessions of a server are in its tickets alone.
void CTlsSetup::SetTickets() {
    SSL_CTX* const context = m_context.get();
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    if (!m_isResuming) {
        SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
        SSL_CTX_set_num_tickets(context, 0);
    } else if (!m_isServer) {
        m_sessions.KeepSessionsOf(context);
    }
    // OpenSSL resumes none of clients with certificates without one.
    constexpr unsigned char id[] = "nxbase";
    SSL_CTX_set_session_id_context(context, id, sizeof(id) - 1);
}

bool CTlsSetup::SetProtocols() {
    if (m_protocols.empty()) {
        return true;
    }
    if (m_isServer) {
        SSL_CTX_set_alpn_select_cb(m_context.get(), &ChooseProtocol, this);
        return true;
    }
    // 0 is success, for once.
    return SSL_CTX_set_alpn_protos(m_context.get(),
                                   reinterpret_cast<const unsigned char*>(m_protocols.data()),
                                   static_cast<unsigned>(m_protocols.size())) == 0;
}

int CTlsSetup::ChooseProtocol(SSL* /*ssl*/, const unsigned char** chosen, unsigned char* chosenSize,
                              const unsigned char* offered, unsigned offeredSize, void* self) {
    const std::string& ours = static_cast<CTlsSetup*>(self)->m_protocols;
    assert(!ours.empty());
    // Its first argument is not const, but is not written through.
    const int result =
        SSL_select_next_proto(const_cast<unsigned char**>(chosen), chosenSize,
                              reinterpret_cast<const unsigned char*>(ours.data()),
                              static_cast<unsigned>(ours.size()), offered, offeredSize);
    return result == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_ALERT_FATAL;
}
