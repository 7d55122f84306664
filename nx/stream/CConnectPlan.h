// Inside the library only: what a connector is to do.
#pragma once

#include <functional>
#include <string>

#include <nx/foundation/CNxString.h>
#include <nx/net/CNxEndpoint.h>
#include <nx/stream/CNxConnectorOptions.h>

// Not changed any more once it is complete.
struct CConnectPlan {
    CConnectPlan(const char* to, const CNxConnectorOptions& how, INxConnectionSink& forWhom)
        : target(to), options(how), sink(forWhom) {}

    // Takes the target apart, and gives the options what they lack. False for a target that is none
    // and options out of their range.
    [[nodiscard]] bool Complete();

    const std::string target;
    CNxConnectorOptions options;
    INxConnectionSink& sink;
    std::function<void(const CNxCloseReason& reason)> onFailed;

    // An endpoint, or the name of a host and a port.
    CNxEndpoint endpoint;
    CNxString host;
    unsigned short port = 0;

private:
    [[nodiscard]] bool ParseTarget();
    void CompleteOptions();
};
