// kv_server and kv_load over TLS.
#include <gtest/gtest.h>
#include <nx/net/CNxEndpoint.h>
#include <nx/net/CNxSocket.h>
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
    CNxEndpoint endpoint;
    ASSERT_EQ(NX_OK, endpoint.Set(("unix:" + m_folder.Path("socket")).c_str()));
    CNxSocketBase local;
    ASSERT_EQ(0, local.Open(AF_UNIX, SOCK_STREAM, 0, 0));
    ASSERT_EQ(0, connect(local.GetHandle(), endpoint.GetAddress(), endpoint.GetSize()));
    ASSERT_EQ(8, send(local.GetHandle(), "INCR a\r\n", 8, 0));
    char reply[8];
    EXPECT_EQ(4, recv(local.GetHandle(), reply, 4, MSG_WAITALL));
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
