// kv_server and kv_load over TLS.
#include <gtest/gtest.h>
#include <tests/support/ServerProcess.h>
#include <tests/support/TestCertificates.h>

#include <string>

namespace {

TEST(KvLoad, SpeaksTlsToAServerThatItTrusts) {
    const CTestCertificates certificates;
    const ServerProcess server(
        KV_SERVER, {"--port=0", "--threads=2", "--tls-port=0", "--tls-cert",
                    certificates.Certificate("server"), "--tls-key", certificates.Key("server")});
    const std::string endpoint = server.ReadEndpoint();
    const std::string options =
        "--tls --requests 2000 --port " + endpoint.substr(endpoint.rfind(':') + 1);
    int status = -1;
    const std::string said =
        OutputOf(KV_LOAD " --tls-ca " + certificates.Certificate("ca") + " " + options, &status);
    EXPECT_EQ(0, status);
    EXPECT_NE(std::string::npos, said.find("every reply was right")) << said;
    const std::string refused =
        OutputOf(KV_LOAD " --connections 1 " + options + " 2>&1 >/dev/null", &status);
    EXPECT_EQ(1, status);
    EXPECT_NE(std::string::npos, refused.find("certificate verify failed")) << refused;
}

}  // namespace
