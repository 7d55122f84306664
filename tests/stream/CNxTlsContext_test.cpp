// TLS between two filters in memory: what is agreed on, what is refused, and how it ends.
#include <gtest/gtest.h>

#include <thread>

#include "../support/FailingNew.h"
#include "TlsPair.h"

namespace {

using EState = CStreamFilter::EState;
using Context = CNxAutoPtr<CNxTlsContext>;

Context MakeServer(const CNxTlsOptions& options = MakeTlsOptions("server")) {
    Context context;
    std::string error;
    EXPECT_EQ(CNxTlsContext::CreateServer(context, options, error), NX_OK) << error;
    return context;
}

Context MakeClient(const CNxTlsOptions& options = MakeTlsOptions("")) {
    Context context;
    std::string error;
    EXPECT_EQ(CNxTlsContext::CreateClient(context, options, error), NX_OK) << error;
    return context;
}

// Both sides speak at most that version.
class Versions : public testing::TestWithParam<int> {
protected:
    static std::shared_ptr<CTlsSetup> MakeServerSetup(bool isResuming = true) {
        CNxTlsOptions options = MakeTlsOptions("server");
        options.resume = isResuming;
        return MakeTlsSetup(true, GetParam(), options);
    }
    TlsPair MakePair() { return {m_client, m_server}; }

    std::shared_ptr<CTlsSetup> m_client = MakeTlsSetup(false, GetParam(), MakeTlsOptions(""));
    std::shared_ptr<CTlsSetup> m_server = MakeServerSetup();
};

INSTANTIATE_TEST_SUITE_P(Tls, Versions, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION));

}  // namespace

TEST(CNxTlsContext, SidesAgreeOrSayWhyNot) {
    using Names = std::vector<std::string>;
    const struct {
        const char* name;
        const char* clientError;
        const char* serverError;
        const char* trusted;  // "": does not verify
        const char* client;   // "none": is asked for a certificate and has none
        Names offered;
        Names accepted;
        const char* agreed;
    } cases[] = {
        {"example.test", "", "", "ca", "", {}, {}, ""},
        {"example.test.", "", "", "ca", "", {}, {}, ""},
        {"127.0.0.1", "", "", "ca", "", {}, {}, ""},
        {"::1%lo", "failed: IP address mismatch", "bad certificate", "ca", "", {}, {}, ""},
        {"other", "failed: hostname mismatch", "bad certificate", "ca", "", {}, {}, ""},
        {"example.test", "certificate verify failed: ", "unknown ca", "other", "", {}, {}, ""},
        {"other", "", "", "", "", {}, {}, ""},
        {"", "", "", "", "", {}, {}, ""},
        {"example.test", "required", "not return a certificate", "ca", "none", {}, {}, ""},
        {"example.test", "", "", "ca", "client", {}, {}, ""},
        {"example.test", "", "", "ca", "", {"h1", "h2"}, {"h2", "h1"}, "h2"},
        {"example.test", "no application", "no application", "ca", "", {"h3"}, {"h2", "h1"}, ""},
        {"example.test", "", "", "ca", "", {"h1"}, {}, ""},
        {"example.test", "", "", "ca", "", {}, {"h1"}, ""},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE("case " + std::to_string(&one - cases));
        const std::string ours = one.client;
        CNxTlsOptions client = MakeTlsOptions(ours == "none" ? "" : ours);
        client.verifyPeer = *one.trusted != '\0';
        client.caFile = client.verifyPeer ? Certificates().Certificate(one.trusted) : "";
        client.protocols = one.offered;
        CNxTlsOptions server = MakeTlsOptions("server");
        server.requirePeerCertificate = !ours.empty();
        server.protocols = one.accepted;
        TlsPair pair(*MakeClient(client), *MakeServer(server), one.name);
        ASSERT_EQ(pair.Open().IsOpen(), *one.clientError == '\0');
        const std::string clientError = pair.client.filter->GetError();
        EXPECT_NE(clientError.find(one.clientError), std::string::npos) << clientError;
        const std::string serverError = pair.server.filter->GetError();
        EXPECT_NE(serverError.find(one.serverError), std::string::npos) << serverError;
        if (pair.IsOpen()) {
            const CNxTlsInfo& info = *pair.server.filter->GetInfo();
            EXPECT_EQ(info.version + info.protocol, std::string("TLSv1.3") + one.agreed);
            EXPECT_EQ(info.peerSubject, ours.empty() ? "" : "CN=client");
            const bool isName = std::string(one.name).rfind("127", 0) != 0;
            EXPECT_EQ(info.serverName, isName ? std::string(one.name).substr(0, 12) : "");
        }
    }
}

TEST(CNxTlsContext, FilesThatDoNotFitAreNamedAndNothingIsReplaced) {
    const auto& certificates = Certificates();
    const CTempFolder& folder = certificates.Folder();
    const std::string encrypted = folder.Path("encrypted.key");
    ASSERT_EQ(std::system(("openssl ec -aes128 -passout pass:word -in " +
                           certificates.Key("server") + " -out " + encrypted + " 2>/dev/null")
                              .c_str()),
              0);
    const std::string broken =
        folder.Put("broken.pem", folder.Get("server.pem") + "-----BEGIN CERTIFICATE-----\nMIIB\n");
    const struct {
        std::string CNxTlsOptions::*file;
        std::string path;
        NxResult result;
        const char* error;
    } cases[] = {
        {&CNxTlsOptions::certificateFile, folder.Path("missing"), NX_ERROR_FAILURE, "No such file"},
        {&CNxTlsOptions::certificateFile, folder.Path(), NX_ERROR_FAILURE, "not a regular file"},
        {&CNxTlsOptions::certificateFile, folder.Put("empty", ""), NX_ERROR_FAILURE, "no start"},
        {&CNxTlsOptions::certificateFile, broken, NX_ERROR_FAILURE, "broken.pem: bad end line"},
        {&CNxTlsOptions::certificateFile, "", NX_ERROR_INVALID_ARG, "are needed"},
        {&CNxTlsOptions::keyFile, certificates.Key("client"), NX_ERROR_FAILURE, "mismatch"},
        {&CNxTlsOptions::keyFile, encrypted, NX_ERROR_FAILURE, "key is encrypted"},
        {&CNxTlsOptions::caFile, certificates.Key("ca"), NX_ERROR_FAILURE, "no start line"},
        {&CNxTlsOptions::caFolder, certificates.Key("ca"), NX_ERROR_FAILURE, "not a folder"},
    };
    for (const auto& one : cases) {
        CNxTlsOptions options = MakeTlsOptions("server");
        options.*one.file = one.path;
        Context context;
        std::string error;
        EXPECT_EQ(CNxTlsContext::CreateServer(context, options, error), one.result) << error;
        EXPECT_NE(error.find(one.error), std::string::npos) << error << " not " << one.error;
        EXPECT_FALSE(context);
    }
    std::string error;
    Context client;
    CNxTlsOptions options = MakeTlsOptions("");
    options.protocols = {std::string(256, 'p')};
    EXPECT_EQ(CNxTlsContext::CreateClient(client, options, error), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(MakeClient()->MakeFilter("", error), nullptr);
    EXPECT_EQ(MakeClient()->MakeFilter(std::string("a\0b", 3), error), nullptr);
}

TEST(CNxTlsContext, ReloadCountsForNewConnectionsAndAFailedOneForNone) {
    const CTestCertificates own;
    CNxTlsOptions options = MakeTlsOptions("server");
    options.certificateFile = own.Certificate("server");
    options.keyFile = own.Key("server");
    const Context server = MakeServer(options);
    const Context client = MakeClient(MakeTlsOptions(""));
    options.certificateFile = options.keyFile = "";
    options.caFile = own.Certificate("ca");
    const Context ownClient = MakeClient(options);
    TlsPair before(*ownClient, *server);
    EXPECT_TRUE(before.Open().IsOpen());

    const CTempFolder& folder = own.Folder();
    folder.Put("server.pem", Certificates().Folder().Get("server.pem"));
    std::string error;
    EXPECT_EQ(server->Reload(error), NX_ERROR_FAILURE);
    EXPECT_TRUE(TlsPair(*ownClient, *server).Open().IsOpen());

    folder.Put("server.key", Certificates().Folder().Get("server.key"));
    EXPECT_EQ(server->Reload(error), NX_OK) << error;
    EXPECT_FALSE(TlsPair(*ownClient, *server).Open().IsOpen());
    EXPECT_TRUE(TlsPair(*client, *server).Open().IsOpen());
    before.client.Send("still there");
    before.Exchange();
    EXPECT_EQ(before.server.TakeReceived(), "still there");
}

TEST(CNxTlsContext, ReloadsAndHandshakesOnThreadsDoNotDisturbEachOther) {
    const Context server = MakeServer();
    const Context client = MakeClient();
    std::thread threads[3];
    for (std::thread& thread : threads) {
        thread = std::thread([&, isReloading = &thread == threads] {
            for (int i = 0; i < 20; ++i) {
                std::string error;
                EXPECT_EQ(isReloading ? server->Reload(error) : NX_OK, NX_OK) << error;
                EXPECT_TRUE(TlsPair(*client, *server).Open().IsOpen());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_P(Versions, BytesArriveInOrderHoweverTheyAreCut) {
    std::string text;
    for (int i = 0; text.size() < 100000; ++i) {
        text += std::to_string(i);
    }
    for (const size_t pieceSize : {1UL, 1448UL, 1UL << 20}) {
        TlsPair pair = MakePair();
        ASSERT_TRUE(pair.Open(pieceSize).IsOpen());
        // Blocks of all sizes, in one chain.
        CNxMessageChain chain;
        size_t at = 0;
        for (size_t size = 1; at < text.size(); at += size, size = size * 7 % 30011) {
            chain.Append(CNxMessageChain(std::string_view(text).substr(at, size)));
        }
        EXPECT_EQ(pair.server.filter->Seal(chain, pair.server.toSocket), EState::OPEN);
        // No more than 24 records.
        EXPECT_LT(pair.server.toSocket.GetSize(), text.size() + 24 * 40);
        pair.client.Send("and back");
        pair.Exchange(pieceSize);
        EXPECT_TRUE(pair.client.TakeReceived() == text);
        EXPECT_EQ(pair.server.TakeReceived(), "and back");
    }
}

TEST_P(Versions, EachSideEndsByItselfAndCuttingOffIsTold) {
    TlsPair pair = MakePair();
    ASSERT_TRUE(pair.Open().IsOpen());
    EXPECT_FALSE(pair.server.filter->MayEnd());
    pair.client.Send("last");
    pair.client.End();
    pair.client.toSocket.Append("thrown away");
    pair.Exchange();
    EXPECT_EQ(pair.server.TakeReceived(), "last");
    EXPECT_EQ(pair.server.state, EState::ENDED);
    EXPECT_TRUE(pair.server.filter->MayEnd());
    EXPECT_FALSE(pair.client.filter->MayEnd());
    pair.server.Send("reply");
    pair.server.End();
    pair.Exchange();
    EXPECT_EQ(pair.client.TakeReceived(), "reply");
    EXPECT_EQ(pair.client.state, EState::ENDED);
}

TEST_P(Versions, WhatIsNotTlsFailsWithAnAlertAndNothingIsReceived) {
    TlsPair pair = MakePair();
    pair.server.filter->Start(pair.server.toSocket);
    pair.client.toSocket.Append("GET / HTTP/1.1\r\n\r\n");
    pair.client.filter->End(pair.client.toSocket);
    pair.Exchange();
    EXPECT_EQ(pair.server.state, EState::FAILED);
    EXPECT_EQ(pair.server.filter->GetError(), "http request");

    TlsPair spoilt = MakePair();
    ASSERT_TRUE(spoilt.Open().IsOpen());
    spoilt.client.Send("text");
    std::string record = std::exchange(spoilt.client.toSocket, {}).ToString();
    record.back() = static_cast<char>(record.back() ^ 1);
    spoilt.client.toSocket.Append(record);
    spoilt.Exchange();
    EXPECT_EQ(spoilt.server.filter->GetError(), "decryption failed or bad record mac");
    EXPECT_NE(spoilt.client.filter->GetError().find("bad record mac"), std::string::npos);
    EXPECT_TRUE(spoilt.server.received.IsEmpty());
}

TEST_P(Versions, SessionsAreResumedByTheSameContextsAndUpTo1000Names) {
    const auto isResumed = [this] {
        TlsPair pair = MakePair();
        EXPECT_TRUE(pair.Open().IsOpen());
        const CNxTlsInfo& info = *pair.server.filter->GetInfo();
        EXPECT_EQ(info.serverName, "example.test");
        EXPECT_EQ(info.isResumed, pair.client.filter->GetInfo()->isResumed);
        EXPECT_EQ(pair.client.filter->GetInfo()->peerSubject, "CN=server");
        return info.isResumed;
    };
    EXPECT_FALSE(isResumed());
    EXPECT_TRUE(isResumed());
    EXPECT_TRUE(isResumed());
    m_server = MakeServerSetup();
    EXPECT_FALSE(isResumed()) << "its tickets are another server's";
    EXPECT_TRUE(isResumed());
    const CSslPtr session(SSL_new(m_client->GetContext()));
    for (int i = 0; i < 1000; ++i) {
        const std::string name = std::to_string(i);
        SSL_set_app_data(session.get(), const_cast<std::string*>(&name));
        const CSslSessionPtr given(SSL_SESSION_new());
        SSL_CTX_sess_get_new_cb(m_client->GetContext())(session.get(), given.get());
    }
    EXPECT_FALSE(isResumed()) << "1,000 names came after it";
    m_server = MakeServerSetup(false);
    EXPECT_FALSE(isResumed());
    EXPECT_FALSE(isResumed());
}

TEST_P(Versions, MemoryThatRunsOutIsThrownAndNothingElse) {
    for (long n = 0;; ++n) {
        TlsPair pair = MakePair();
        bool isThrown = false;
        {
            const FailingNew failing(n, FailingNew::ONCE);
            try {
                pair.Open();
                pair.client.Send("text");
                pair.Exchange();
            } catch (const std::bad_alloc&) {
                isThrown = true;
            }
            if (FailingNew::CountFailed() == 0) {
                break;
            }
        }
        // A session that cannot be kept is not missed.
        EXPECT_TRUE(isThrown || pair.server.TakeReceived() == "text") << n;
    }
}
