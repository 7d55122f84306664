// kv_server and kv_load over TLS.
#include <gtest/gtest.h>
#include <tests/support/ServerProcess.h>
#include <tests/support/TempFolder.h>
#include <tests/support/TestCertificates.h>

#include <string>

namespace {

// A server with two loops, a port, a unix socket and a port for TLS.
struct KvTls : testing::Test {
    const CTestCertificates m_certificates;
    const CTempFolder m_folder;
    const ServerProcess m_server{
        KV_SERVER,
        {"--port=0", "--threads=2", "--unix", m_folder.Path("socket"), "--tls-port=0", "--tls-cert",
         m_certificates.Certificate("server"), "--tls-key", m_certificates.Key("server")}};
    const std::string m_endpoint = m_server.ReadEndpoint(2);
};

TEST_F(KvTls, ServesTlsAndAUnixSocketBesideItsPort) {
    const TestClient client(m_server.GetPort());
    client.Expect("SET a 1\r\n", "+OK\r\n");
    const Connection local(m_folder.Path("socket"), std::chrono::minutes(1));
    EXPECT_TRUE(local.TrySend("INCR a\r\n"));
    EXPECT_EQ(":2\r\n", local.Receive(4));
    const std::string said =
        OutputOf("printf 'GET a\r\nQUIT\r\n' | openssl s_client -quiet -CAfile " +
                 m_certificates.Certificate("ca") + " -verify_return_error -connect " + m_endpoint +
                 " 2>/dev/null");
    EXPECT_EQ("$1\r\n2\r\n+OK\r\n", said);
}

TEST_F(KvTls, SpeaksTlsToAServerThatItTrusts) {
    const std::string options =
        "--tls --requests 2000 --port " + m_endpoint.substr(m_endpoint.rfind(':') + 1);
    int status = -1;
    const std::string said =
        OutputOf(KV_LOAD " --tls-ca " + m_certificates.Certificate("ca") + " " + options, &status);
    EXPECT_EQ(0, status);
    EXPECT_NE(std::string::npos, said.find("every reply was right")) << said;
    const std::string refused =
        OutputOf(KV_LOAD " --connections 1 " + options + " 2>&1 >/dev/null", &status);
    EXPECT_EQ(1, status);
    EXPECT_NE(std::string::npos, refused.find("certificate verify failed")) << refused;
}

}  // namespace
