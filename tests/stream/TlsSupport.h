// Contexts for tests; those that are made where there is no TLS are null.
#pragma once

#include <nx/stream/CNxTlsContext.h>
#include <tests/support/Must.h>
#include <tests/support/TestCertificates.h>

#include <string>

inline const CTestCertificates& Certificates() {
    static const CTestCertificates s_certificates;
    return s_certificates;
}

// Of a side that has the certificate of that name, "" for none, and trusts that authority; "" for
// one that does not verify.
inline CNxTlsOptions MakeTlsOptions(const std::string& name, const std::string& trusted = "ca") {
    CNxTlsOptions options;
    options.certificateFile = name.empty() ? "" : Certificates().Certificate(name);
    options.keyFile = name.empty() ? "" : Certificates().Key(name);
    options.verifyPeer = !trusted.empty();
    options.caFile = trusted.empty() ? "" : Certificates().Certificate(trusted);
    return options;
}

inline CNxAutoPtr<CNxTlsContext> MakeTls(bool isServer, const CNxTlsOptions& options) {
    CNxAutoPtr<CNxTlsContext> context;
    std::string error;
    const NxResult made = isServer ? CNxTlsContext::CreateServer(context, options, error)
                                   : CNxTlsContext::CreateClient(context, options, error);
    if (made != NX_ERROR_NOT_IMPLEMENTED) {
        Must(made);
    }
    return context;
}
