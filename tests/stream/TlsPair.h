// Two sides of TLS that talk in memory.
#pragma once

#include <nx/stream/CNxTlsContext.h>
#include <nx/stream/CTlsFilter.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include "../support/TestCertificates.h"

inline const CTestCertificates& Certificates() {
    static const CTestCertificates s_certificates;
    return s_certificates;
}

// Of a side that has the certificate of that name, "" for none, and trusts that authority.
inline CNxTlsOptions MakeTlsOptions(const std::string& name, const std::string& trusted = "ca") {
    CNxTlsOptions options;
    options.certificateFile = name.empty() ? "" : Certificates().Certificate(name);
    options.keyFile = name.empty() ? "" : Certificates().Key(name);
    options.caFile = Certificates().Certificate(trusted);
    return options;
}

// Speaks at most that version, as no option says.
inline std::shared_ptr<CTlsSetup> MakeTlsSetup(bool isServer, int version,
                                               const CNxTlsOptions& options) {
    auto setup = std::make_shared<CTlsSetup>();
    std::string error;
    if (setup->Init(isServer, options, error) != NX_OK) {
        std::abort();
    }
    SSL_CTX_set_max_proto_version(setup->GetContext(), version);
    return setup;
}

struct TlsSide {
    using EState = CStreamFilter::EState;

    std::unique_ptr<CStreamFilter> filter;
    CNxMessageChain received;
    CNxMessageChain toSocket;
    CNxMessageChain held;
    EState state = EState::HANDSHAKING;

    void Send(const std::string& text) {
        held.Append(text);
        state = filter->Seal(held, toSocket);
    }
    void End() { filter->End(toSocket); }
    std::string TakeToSocket() { return std::exchange(toSocket, {}).ToString(); }
    std::string TakeReceived() { return std::exchange(received, {}).ToString(); }
};

class TlsPair {
public:
    using EState = CStreamFilter::EState;

    TlsPair(const std::shared_ptr<CTlsSetup>& clientSetup,
            const std::shared_ptr<CTlsSetup>& serverSetup) {
        client.filter = MakeFilter(clientSetup, "example.test");
        server.filter = MakeFilter(serverSetup, "");
    }
    TlsPair(CNxTlsContext& clientContext, CNxTlsContext& serverContext,
            const std::string& name = "example.test") {
        std::string error;
        client.filter = clientContext.MakeFilter(name, error);
        server.filter = serverContext.MakeFilter("", error);
    }

    // Carries what each has for the other, in pieces, until neither has more.
    void Exchange(size_t pieceSize = 65536) {
        while (!client.toSocket.IsEmpty() || !server.toSocket.IsEmpty()) {
            Carry(client, server, pieceSize);
            Carry(server, client, pieceSize);
        }
    }

    // Both sides are open afterwards, unless one has failed.
    TlsPair& Open(size_t pieceSize = 65536) {
        client.state = client.filter->Start(client.toSocket);
        server.state = server.filter->Start(server.toSocket);
        Exchange(pieceSize);
        return *this;
    }

    bool IsOpen() const { return client.state == EState::OPEN && server.state == EState::OPEN; }

    static std::unique_ptr<CStreamFilter> MakeFilter(const std::shared_ptr<CTlsSetup>& setup,
                                                     const std::string& name) {
        auto filter = std::make_unique<CTlsFilter>(setup, name);
        return filter->Init() ? std::move(filter) : nullptr;
    }

    TlsSide client;
    TlsSide server;

private:
    static void Carry(TlsSide& from, TlsSide& to, size_t pieceSize) {
        while (!from.toSocket.IsEmpty()) {
            to.state = to.filter->Open(from.toSocket.Split(pieceSize), to.received, to.toSocket);
        }
    }
};
