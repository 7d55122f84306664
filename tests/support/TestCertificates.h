// Certificates for tests, made by openssl(1) into a folder of the test's own.
#pragma once

#include <string>

#include "TempFolder.h"

class CTestCertificates {
public:
    // "ca" and "other" are authorities. "server" is for example.test and 127.0.0.1, "client" has
    // the subject "CN=client"; both are by "ca".
    CTestCertificates() {
        Make("ca", "/CN=ca", "");
        Make("other", "/CN=other", "");
        Make("server", "/CN=server", "-addext subjectAltName=DNS:example.test,IP:127.0.0.1", "ca");
        Make("client", "/CN=client", "", "ca");
    }

    std::string Certificate(const std::string& name) const { return m_folder.Path(name + ".pem"); }
    std::string Key(const std::string& name) const { return m_folder.Path(name + ".key"); }
    const CTempFolder& Folder() const { return m_folder; }

    void Make(const std::string& name, const std::string& subject, const std::string& more,
              const std::string& issuer = "") const {
        std::string command =
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
            "-days 30 -subj " +
            subject + " -keyout " + Key(name) + " -out " + Certificate(name) + " " + more;
        if (!issuer.empty()) {
            command += " -addext basicConstraints=CA:FALSE -CA " + Certificate(issuer) +
                       " -CAkey " + Key(issuer);
        }
        OutputOf(command + " 2>/dev/null");
    }

private:
    const CTempFolder m_folder;
};
