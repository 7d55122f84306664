// Inside the library only: TLS as a filter of a connection.
#pragma once

#include <nx/stream/CNxTlsOptions.h>
#include <nx/stream/CStreamFilter.h>
#include <nx/stream/CTlsSetup.h>

#include <memory>
#include <string>

// One side of one connection. Begun by Init.
class CTlsFilter : public CStreamFilter {
public:
    // `name` as in CNxTlsContext::MakeFilter.
    CTlsFilter(std::shared_ptr<CTlsSetup> setup, const std::string& name);
    ~CTlsFilter() override;
    CTlsFilter(const CTlsFilter&) = delete;
    CTlsFilter& operator=(const CTlsFilter&) = delete;

    // False, with the reason in GetError().
    [[nodiscard]] bool Init();

    EState Start(CNxMessageChain& toSocket) override;
    EState Open(CNxMessageChain&& fromSocket, CNxMessageChain& received,
                CNxMessageChain& toSocket) override;
    EState Seal(CNxMessageChain& plain, CNxMessageChain& toSocket) override;
    // Nothing during the handshake, which has no such end, and after FAILED.
    void End(CNxMessageChain& toSocket) override;
    bool MayEnd() const override { return m_state == EState::ENDED; }
    std::string GetError() const override { return m_error; }
    const CNxTlsInfo* GetInfo() const override { return m_info.get(); }

private:
    class CScope;

    EState Finish();
    bool SetServer();
    bool CheckName();
    void Handshake();
    void NoteOpen();
    bool ReadRecord(CNxMessageChain& received);
    bool SealRecord(CNxMessageChain& plain);
    void NoteFailure(int result);
    void Fail(const char* why = nullptr);

    static int WriteBio(BIO* bio, const char* data, size_t size, size_t* written);
    static int ReadBio(BIO* bio, char* data, size_t size, size_t* got);
    static BIO_METHOD* MakeBioMethod();

    const std::shared_ptr<CTlsSetup> m_setup;
    const std::string m_name;
    EState m_state = EState::HANDSHAKING;
    bool m_isOutOfMemory = false;
    bool m_hasOfferedSession = false;
    CNxMessageChain m_fromSocket;  // less than a record, between calls
    CNxMessageChain* m_toSocket = nullptr;
    std::string m_error;
    std::unique_ptr<CNxTlsInfo> m_info;
    CSslPtr m_ssl;
};
