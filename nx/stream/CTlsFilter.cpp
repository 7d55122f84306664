#include <arpa/inet.h>
#include <nx/stream/CTlsFilter.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cassert>
#include <new>
#include <string_view>
#include <utility>

namespace {

// RFC 8446, 5.1: the text of a record has at most so many bytes.
constexpr size_t c_maxRecord = 16384;

// Names are compared and sent without the dot that ends a full one (RFC 6066, 3). The zone of an
// IPv6 address means something on this machine alone.
std::string TidyName(const std::string& name) {
    std::string tidy = name.substr(0, name.find('%'));
    if (!tidy.empty() && tidy.back() == '.') {
        tidy.pop_back();
    }
    return tidy;
}

std::string GetSubject(const X509* certificate) {
    const CBioPtr bio(BIO_new(BIO_s_mem()));
    if (certificate == nullptr || bio == nullptr ||
        X509_NAME_print_ex(bio.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253) < 0) {
        return {};
    }
    char* text = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &text);
    return {text, static_cast<size_t>(size)};
}

std::string TextOrNone(const char* text) {
    return text == nullptr ? std::string() : std::string(text);
}

}  // namespace

// One operation: where its bytes go, and the thread's queue of errors, which is its own.
class CTlsFilter::CScope {
public:
    CScope(CTlsFilter& filter, CNxMessageChain& toSocket) : m_filter(filter) {
        ERR_clear_error();
        m_filter.m_toSocket = &toSocket;
    }
    ~CScope() {
        m_filter.m_toSocket = nullptr;
        ERR_clear_error();
    }
    CScope(const CScope&) = delete;
    CScope& operator=(const CScope&) = delete;

private:
    CTlsFilter& m_filter;
};

CTlsFilter::CTlsFilter(std::shared_ptr<CTlsSetup> setup, const std::string& name)
    : m_setup(std::move(setup)), m_name(TidyName(name)) {}

CTlsFilter::~CTlsFilter() {
    m_ssl.reset();
    ERR_clear_error();
}

bool CTlsFilter::Init() {
    static BIO_METHOD* const s_method = MakeBioMethod();
    ERR_clear_error();
    m_ssl.reset(SSL_new(m_setup->GetContext()));
    BIO* const bio = m_ssl == nullptr ? nullptr : BIO_new(s_method);
    if (bio == nullptr) {
        Fail();
        return false;
    }
    BIO_set_data(bio, this);
    BIO_set_init(bio, 1);
    SSL_set_bio(m_ssl.get(), bio, bio);
    if (m_setup->IsServer()) {
        SSL_set_accept_state(m_ssl.get());
        return true;
    }
    SSL_set_connect_state(m_ssl.get());
    return SetServer();
}

// Whom the client wants to reach.
bool CTlsFilter::SetServer() {
    if (m_name.empty() && m_setup->IsVerifying()) {
        Fail("the server's name is needed to verify its certificate");
        return false;
    }
    if (m_name.empty()) {
        return true;
    }
    if (!CheckName()) {
        return false;
    }
    CTlsSessions* const sessions = m_setup->GetSessions();
    m_hasOfferedSession = sessions != nullptr && sessions->Offer(m_ssl.get(), m_name);
    return true;
}

// The certificate must have the name or address; a name is sent (RFC 6066: an address is not).
bool CTlsFilter::CheckName() {
    X509_VERIFY_PARAM* const checks = SSL_get0_param(m_ssl.get());
    unsigned char address[sizeof(in6_addr)];
    const bool isV4 = inet_pton(AF_INET, m_name.c_str(), address) == 1;
    if (m_name.find('\0') != std::string::npos) {
        Fail("a zero byte in the server's name");
        return false;
    }
    if (isV4 || inet_pton(AF_INET6, m_name.c_str(), address) == 1) {
        const size_t size = isV4 ? sizeof(in_addr) : sizeof(in6_addr);
        if (X509_VERIFY_PARAM_set1_ip(checks, address, size) == 1) {
            return true;
        }
    } else {
        X509_VERIFY_PARAM_set_hostflags(checks, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        if (X509_VERIFY_PARAM_set1_host(checks, m_name.data(), m_name.size()) == 1 &&
            SSL_set_tlsext_host_name(m_ssl.get(), m_name.c_str()) == 1) {
            return true;
        }
    }
    Fail();
    return false;
}

CTlsFilter::EState CTlsFilter::Start(CNxMessageChain& toSocket) {
    const CScope scope(*this, toSocket);
    Handshake();
    return Finish();
}

CTlsFilter::EState CTlsFilter::Open(CNxMessageChain&& fromSocket, CNxMessageChain& received,
                                    CNxMessageChain& toSocket) {
    const CScope scope(*this, toSocket);
    m_fromSocket.Append(std::move(fromSocket));
    if (m_state == EState::HANDSHAKING) {
        Handshake();
    }
    while (m_state == EState::OPEN && (!m_fromSocket.IsEmpty() || SSL_pending(m_ssl.get()) > 0) &&
           ReadRecord(received)) {
    }
    if (m_state != EState::HANDSHAKING && m_state != EState::OPEN) {
        m_fromSocket.Clear();
    }
    return Finish();
}

CTlsFilter::EState CTlsFilter::Seal(CNxMessageChain& plain, CNxMessageChain& toSocket) {
    assert(m_state != EState::HANDSHAKING);
    const CScope scope(*this, toSocket);
    while (m_state != EState::FAILED && !plain.IsEmpty() && SealRecord(plain)) {
    }
    if (m_state == EState::FAILED) {
        plain.Clear();
    }
    return Finish();
}

void CTlsFilter::End(CNxMessageChain& toSocket) {
    if (m_state != EState::OPEN && m_state != EState::ENDED) {
        return;
    }
    const CScope scope(*this, toSocket);
    const int result = SSL_shutdown(m_ssl.get());
    // 0: the peer has not ended its side yet.
    if (result < 0) {
        NoteFailure(result);
    }
    Finish();
}

// OpenSSL does not always pass on that its bytes could not be written.
CTlsFilter::EState CTlsFilter::Finish() {
    if (std::exchange(m_isOutOfMemory, false)) {
        m_state = EState::FAILED;
        throw std::bad_alloc();
    }
    return m_state;
}

void CTlsFilter::Handshake() {
    assert(m_state == EState::HANDSHAKING);
    const int result = SSL_do_handshake(m_ssl.get());
    if (result == 1) {
        NoteOpen();
        return;
    }
    NoteFailure(result);
    // A session that the server cannot bear is not offered again.
    if (m_state == EState::FAILED && m_hasOfferedSession) {
        m_setup->GetSessions()->Forget(m_name);
    }
}

void CTlsFilter::NoteOpen() {
    const SSL* const ssl = m_ssl.get();
    const unsigned char* protocol = nullptr;
    unsigned protocolSize = 0;
    SSL_get0_alpn_selected(ssl, &protocol, &protocolSize);
    m_info = std::make_unique<CNxTlsInfo>();
    m_info->version = SSL_get_version(ssl);
    m_info->cipher = SSL_get_cipher_name(ssl);
    m_info->protocol.assign(protocol, protocol + protocolSize);
    m_info->serverName = TextOrNone(SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name));
    m_info->peerSubject = GetSubject(SSL_get0_peer_certificate(ssl));
    m_info->isResumed = SSL_session_reused(m_ssl.get()) == 1;
    m_state = EState::OPEN;
}

// False when more has to come from the socket, or nothing any more.
bool CTlsFilter::ReadRecord(CNxMessageChain& received) {
    // A record has more bytes than its text.
    const size_t waiting =
        std::max(m_fromSocket.GetSize(), static_cast<size_t>(SSL_pending(m_ssl.get())));
    char* const space = received.MakeSpace(std::min(waiting, c_maxRecord));
    size_t got = 0;
    const int result = SSL_read_ex(m_ssl.get(), space, received.GetSpaceSize(), &got);
    if (result != 1) {
        NoteFailure(result);
    }
    received.Commit(got);
    return result == 1;
}

// Joining small blocks costs less than sending each as a record; a block of at least half a record
// is not worth the copy. False when it has failed, and while a message of the peer's handshake
// layer has come in part (a ticket, an update of keys): OpenSSL wants the rest first.
bool CTlsFilter::SealRecord(CNxMessageChain& plain) {
    char joined[c_maxRecord];
    std::string_view text = plain.GetFront().substr(0, c_maxRecord);
    if (text.size() < c_maxRecord / 2 && text.size() < plain.GetSize()) {
        text = {joined, plain.Copy(joined, sizeof(joined))};
    }
    size_t written = 0;
    const int result = SSL_write_ex(m_ssl.get(), text.data(), text.size(), &written);
    if (result != 1) {
        NoteFailure(result);
        return false;
    }
    assert(written == text.size());
    plain.Consume(written);
    return true;
}

// What an operation that has not succeeded means: the end, or nothing when it waits for the socket.
void CTlsFilter::NoteFailure(int result) {
    const int kind = SSL_get_error(m_ssl.get(), result);
    if (kind == SSL_ERROR_ZERO_RETURN && m_state == EState::OPEN) {
        m_state = EState::ENDED;
    } else if (kind == SSL_ERROR_ZERO_RETURN) {
        Fail("the peer ended during the handshake");
    } else if (kind != SSL_ERROR_WANT_READ) {
        Fail();
    }
}

// Without a text: OpenSSL's.
void CTlsFilter::Fail(const char* why) {
    m_state = EState::FAILED;
    m_error = why == nullptr ? TakeOpenSslError() : why;
    const long verified = m_ssl == nullptr ? X509_V_OK : SSL_get_verify_result(m_ssl.get());
    if (m_setup->IsVerifying() && verified != X509_V_OK) {
        m_error.append(": ").append(X509_verify_cert_error_string(verified));
    }
}

// Called by OpenSSL, as the next one: nothing may be thrown.
int CTlsFilter::WriteBio(BIO* bio, const char* data, size_t size, size_t* written) {
    auto& self = *static_cast<CTlsFilter*>(BIO_get_data(bio));
    assert(self.m_toSocket != nullptr);
    try {
        self.m_toSocket->Append(std::string_view(data, size));
    } catch (const std::bad_alloc&) {
        self.m_isOutOfMemory = true;
        return 0;
    }
    *written = size;
    return 1;
}

int CTlsFilter::ReadBio(BIO* bio, char* data, size_t size, size_t* got) {
    CNxMessageChain& from = static_cast<CTlsFilter*>(BIO_get_data(bio))->m_fromSocket;
    BIO_clear_retry_flags(bio);
    if (from.IsEmpty()) {
        BIO_set_retry_read(bio);
        return 0;
    }
    *got = from.Copy(data, size);
    from.Consume(*got);
    return 1;
}

// One for the process, never freed.
BIO_METHOD* CTlsFilter::MakeBioMethod() {
    BIO_METHOD* const method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "chain");
    if (method == nullptr) {
        throw std::bad_alloc();
    }
    BIO_meth_set_write_ex(method, &WriteBio);
    BIO_meth_set_read_ex(method, &ReadBio);
    BIO_meth_set_ctrl(
        method, +[](BIO*, int command, long, void*) -> long { return command == BIO_CTRL_FLUSH; });
    return method;
}
