// TLS between two filters in memory: what is agreed on, what is refused, and how it ends.
#include <gtest/gtest.h>

#include "../support/FailingNew.h"
#include "TlsPair.h"

namespace {

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
        CNxTlsOptions client = MakeTlsOptions(ours == "none" ? "" : ours, one.trusted);
        client.protocols = one.offered;
        CNxTlsOptions server = MakeTlsOptions("server");
        server.requirePeerCertificate = !ours.empty();
        server.protocols = one.accepted;
        TlsPair pair(*MakeTls(false, client), *MakeTls(true, server), one.name);
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
    OutputOf("openssl ec -aes128 -passout pass:word -in " + certificates.Key("server") + " -out " +
             encrypted + " 2>&1");
    const std::string broken =
        folder.Put("broken.pem", folder.Get("server.pem") + "-----BEGIN CERTIFICATE-----\nMIIB\n");
    const struct {
        std::string CNxTlsOptions::*file;
        std::string path;
        const char* error;
    } cases[] = {
        {&CNxTlsOptions::certificateFile, folder.Path("missing"), "No such file"},
        {&CNxTlsOptions::certificateFile, folder.Path(), "not a regular file"},
        {&CNxTlsOptions::certificateFile, broken, "broken.pem: bad end line"},
        {&CNxTlsOptions::certificateFile, "", "are needed"},
        {&CNxTlsOptions::keyFile, certificates.Key("client"), "mismatch"},
        {&CNxTlsOptions::keyFile, encrypted, "key is encrypted"},
    };
    for (const auto& one : cases) {
        CNxTlsOptions options = MakeTlsOptions("server");
        options.*one.file = one.path;
        CNxAutoPtr<CNxTlsContext> context;
        std::string error;
        EXPECT_EQ(CNxTlsContext::CreateServer(context, options, error),
                  one.path.empty() ? NX_ERROR_INVALID_ARG : NX_ERROR_FAILURE);
        EXPECT_NE(error.find(one.error), std::string::npos) << error << " not " << one.error;
        EXPECT_FALSE(context);
    }
    std::string error;
    for (const std::string& name : {std::string(), std::string("a\0b", 3)}) {
        EXPECT_EQ(MakeTls(false, MakeTlsOptions(""))->MakeFilter(name, error), nullptr);
    }
}

TEST(CNxTlsContext, ReloadCountsForNewConnectionsAndAFailedOneForNone) {
    const CTestCertificates own;
    CNxTlsOptions options = MakeTlsOptions("server");
    options.certificateFile = own.Certificate("server");
    options.keyFile = own.Key("server");
    const auto server = MakeTls(true, options);
    const auto client = MakeTls(false, MakeTlsOptions(""));
    options.certificateFile = options.keyFile = "";
    options.caFile = own.Certificate("ca");
    const auto ownClient = MakeTls(false, options);
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

class Versions : public testing::TestWithParam<int> {
protected:
    const std::shared_ptr<CTlsSetup> m_client = MakeTlsSetup(false, GetParam(), MakeTlsOptions(""));
    std::shared_ptr<CTlsSetup> m_server = MakeServerSetup(GetParam());
};
INSTANTIATE_TEST_SUITE_P(Tls, Versions, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION));

TEST_P(Versions, SessionsAreResumedByTheSameContextsAndUpTo1000Names) {
    const auto isResumed = [&] {
        TlsPair pair(m_client, m_server);
        EXPECT_TRUE(pair.Open().IsOpen());
        const CNxTlsInfo& info = *pair.server.filter->GetInfo();
        EXPECT_EQ(info.serverName, "example.test");
        EXPECT_EQ(info.isResumed, pair.client.filter->GetInfo()->isResumed);
        EXPECT_EQ(pair.client.filter->GetInfo()->peerSubject, "CN=server");
        return info.isResumed;
    };
    EXPECT_FALSE(isResumed());
    EXPECT_TRUE(isResumed());
    m_server = MakeServerSetup(GetParam());
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
}

TEST_P(Versions, MemoryThatRunsOutIsThrownAndNothingElse) {
    for (long n = 0, failed = 1; failed != 0; ++n) {
        TlsPair pair(m_client, m_server);
        const FailingNew failing(n, FailingNew::ONCE);
        bool isThrown = false;
        try {
            pair.Open();
            pair.client.Send("text");
            pair.Exchange();
        } catch (const std::bad_alloc&) {
            isThrown = true;
        }
        failed = FailingNew::CountFailed();
        // A session that cannot be kept is not missed.
        EXPECT_TRUE(isThrown || pair.server.TakeReceived() == "text") << n;
    }
}

}  // namespace
