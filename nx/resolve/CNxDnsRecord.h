// What a look-up found for one host name.
#pragma once

#include <vector>

#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/CNxReferenceControl.h>
#include <nx/foundation/CNxString.h>
#include <nx/foundation/CNxTimeValue.h>
#include <nx/foundation/NxResult.h>
#include <nx/net/CNxInetAddr.h>

// Never changes once CNxDnsManager has given it out, so any thread may read it; whoever holds one
// counts a reference.
class CNxDnsRecord : public CNxReferenceControlT<CNxMutexThread> {
public:
    // As it was asked for, in lower case.
    const CNxString& GetHostName() const { return m_hostName; }

    // NX_OK: there is at least one address. Otherwise there is none:
    // NX_ERROR_NOT_AVAILABLE when the name does not exist or has no address; ALSO WHEN ONE OF THE
    // TWO QUESTIONS, for IPv4 and for IPv6, FAILED and then the other was answered with no address,
    // NX_ERROR_TIMEOUT when no name server has answered in time,
    // NX_ERROR_FAILURE when the name servers could not be reached, failed or answered nonsense,
    // without memory, and when the resolver was stopped meanwhile.
    NxResult GetResult() const { return m_result; }

    // The one to try first stands first (RFC 6724 section 6). Each is resolved, its port 0.
    const std::vector<CNxInetAddr>& GetAddresses() const { return m_addresses; }

    // Copies the first address over `address`, its port and empty host name included. NX_OK, or
    // NX_ERROR_NOT_AVAILABLE, with `address` as it was, when nothing was found.
    [[nodiscard]] NxResult GetFirstIPAddr(CNxInetAddr& address) const;

    // When it was found and until when it is valid, of the monotonic clock
    // (CNxTimeValue::GetMonotonicTime). That is as long as the answer says, but 1 s at least and
    // 1 h at most; a failure is valid for 5 s, an address in figures for an hour.
    const CNxTimeValue& GetResolveTime() const { return m_resolveTime; }
    const CNxTimeValue& GetExpireTime() const { return m_expireTime; }

private:
    friend class CDnsLookup;
    friend class CDnsManagerImp;

    explicit CNxDnsRecord(const CNxString& hostName) : m_hostName(hostName) {}

    // Once, before it is given out. No address makes a failure of NX_OK.
    void Complete(NxResult result, std::vector<CNxInetAddr> addresses, long ttlSeconds);

    const CNxString m_hostName;
    NxResult m_result = NX_ERROR_FAILURE;
    std::vector<CNxInetAddr> m_addresses;
    CNxTimeValue m_resolveTime;
    CNxTimeValue m_expireTime;
};
