// Two sides of TLS that talk in memory.
#pragma once

#include <nx/stream/CTlsFilter.h>

#include <memory>
#include <string>
#include <utility>

#include "TlsSupport.h"

// Speaks at most that version, as no option says.
inline std::shared_ptr<CTlsSetup> MakeTlsSetup(bool isServer, int version,
                                               const CNxTlsOptions& options) {
    auto setup = std::make_shared<CTlsSetup>();
    std::string error;
    Must(setup->Init(isServer, options, error));
    SSL_CTX_set_max_proto_version(setup->GetContext(), version);
    return setup;
}

inline std::shared_ptr<CTlsSetup> MakeServerSetup(int version) {
    return MakeTlsSetup(true, version, MakeTlsOptions("server"));
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
