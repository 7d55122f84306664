// How a connector connects, and how it tries again.
#pragma once

#include <functional>

#include <nx/foundation/CNxTimeValue.h>
#include <nx/stream/CNxConnection.h>

struct CNxConnectorOptions {
    // No time may be longer: a year.
    static constexpr CNxTimeValue LongestTime() { return CNxTimeValue(365L * 24 * 3600); }

    // How the connection behaves; null for the defaults. With TLS and without a tlsName the host of
    // the target is the name.
    CNxConnection::Options connection;

    // Of one try, from the look-up to the connected socket, all addresses included; zero for none.
    // TLS is agreed on afterwards and has a time-out of its own (handshakeTimeout).
    CNxTimeValue timeout{10, 0};

    // How many tries Connect, or a Reconnect, makes before it fails; 0: without end.
    unsigned tries = 0;

    // The first delay before another try; each further one is twice the last, up to maxDelay. More
    // than zero, and maxDelay no less than firstDelay.
    CNxTimeValue firstDelay{0, 500000};
    CNxTimeValue maxDelay{30, 0};

    // How much of a delay is left to chance, from 0 to 1, so that the clients of a server that
    // comes back do not come back all at once: 0.5 waits from half of it to the whole ("equal
    // jitter"), 1 from nothing ("full jitter"; both in M. Brooker, Exponential Backoff And Jitter,
    // 2015).
    double jitter = 0.5;

    // For logs: a try has failed, and the next begins after `delay`. May call anything. Not called
    // by Reconnect: no try has failed; CNxConnector::GetDelay tells its delay.
    std::function<void(const CNxCloseReason& reason, const CNxTimeValue& delay)> onRetry;
};
