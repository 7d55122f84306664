// In the place of TLS: every byte is XORed; a handshake of one byte each way, an end mark, and a
// byte that stands for a broken record.
#include <nx/stream/CNxTlsContext.h>
#include <nx/stream/CStreamFilter.h>

namespace {

// They stand outside of what is transformed: plain bytes have the high bit clear.
constexpr char c_hello = '\x81';
constexpr char c_end = '\x82';
constexpr char c_alert = '\x83';
constexpr char c_key = 0x2A;

class XorFilter final : public CStreamFilter {
public:
    EState Start(CNxMessageChain& toSocket) override {
        toSocket.Append(std::string_view(&c_hello, 1));
        return m_state;
    }
    EState Open(CNxMessageChain&& fromSocket, CNxMessageChain& received,
                CNxMessageChain& toSocket) override {
        std::string plain;
        for (const char byte : fromSocket.ToString()) {
            if (m_state == EState::HANDSHAKING && byte == c_hello) {
                m_state = EState::OPEN;
            } else if (m_state == EState::OPEN && byte == c_end) {
                m_state = EState::ENDED;
            } else if (m_state != EState::OPEN || (byte & '\x80') != 0) {
                m_state = EState::FAILED;
                toSocket.Append(std::string_view(&c_alert, 1));
                break;
            } else {
                plain += static_cast<char>(byte ^ c_key);
            }
        }
        received.Append(plain);
        return m_state;
    }
    EState Seal(CNxMessageChain& plain, CNxMessageChain& toSocket) override {
        std::string bytes = plain.ToString();
        for (char& byte : bytes) {
            byte = static_cast<char>(byte ^ c_key);
        }
        toSocket.Append(bytes);
        plain.Clear();
        return m_state;
    }
    void End(CNxMessageChain& toSocket) override { toSocket.Append(std::string_view(&c_end, 1)); }
    bool MayEnd() const override { return m_state == EState::ENDED; }
    std::string GetError() const override { return "bad record"; }
    const CNxTlsInfo* GetInfo() const override { return &m_info; }

private:
    CNxTlsInfo m_info;
    EState m_state = EState::HANDSHAKING;
};

}  // namespace

class CNxTlsContext::CImp {};

CNxTlsContext::CNxTlsContext(std::unique_ptr<CImp> imp) : m_imp(std::move(imp)) {}
CNxTlsContext::~CNxTlsContext() = default;

NxResult CNxTlsContext::CreateClient(CNxAutoPtr<CNxTlsContext>& out,
                                     const CNxTlsOptions& /*options*/, std::string& /*error*/) {
    out = new CNxTlsContext(nullptr);
    return NX_OK;
}

NxResult CNxTlsContext::CreateServer(CNxAutoPtr<CNxTlsContext>& out, const CNxTlsOptions& options,
                                     std::string& error) {
    return CreateClient(out, options, error);
}

std::unique_ptr<CStreamFilter> CNxTlsContext::MakeFilter(const std::string& /*name*/,
                                                         std::string& /*error*/) {
    return std::make_unique<XorFilter>();
}
