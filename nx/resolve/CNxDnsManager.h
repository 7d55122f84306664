// The process-wide resolver of host names.
//
// IT LOOKS NOTHING UP YET: AsyncResolve returns NX_ERROR_NOT_AVAILABLE for every name. Programs
// pass numeric addresses to CNxInetAddr, or resolve names themselves.
#pragma once

#include <utility>
#include <vector>

#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/CNxReferenceControl.h>
#include <nx/foundation/CNxSingleton.h>
#include <nx/foundation/CNxString.h>
#include <nx/foundation/NxResult.h>
#include <nx/net/CNxInetAddr.h>

class CNxThread;
class INxObserver;

// What a look-up found for one host name. Never changes, so it may be shared between threads; its
// holders count their references.
class CNxDnsRecord : public CNxReferenceControlT<CNxMutexThread> {
public:
    // The addresses in order of preference, each of them resolved.
    CNxDnsRecord(const CNxString& hostName, std::vector<CNxInetAddr> addresses)
        : m_hostName(hostName), m_addresses(std::move(addresses)) {}

    const CNxString& GetHostName() const { return m_hostName; }

    // Copies the first address over `address`, its port and empty host name included. NX_OK, or
    // NX_ERROR_NOT_AVAILABLE, with `address` as it was, when nothing was found.
    [[nodiscard]] NxResult GetFirstIPAddr(CNxInetAddr& address) const;

private:
    const CNxString m_hostName;
    const std::vector<CNxInetAddr> m_addresses;
};

// Lives until the tear-down of the library. Any thread may call any operation.
class CNxDnsManager {
public:
    // Made by the first call; never null.
    static CNxDnsManager* Instance();

    CNxDnsManager(const CNxDnsManager&) = delete;
    CNxDnsManager& operator=(const CNxDnsManager&) = delete;

    // Looks the host name up without blocking. `record` becomes null, or with NX_OK what was found,
    // with a reference that the caller releases.
    // NX_ERROR_NOT_AVAILABLE, always: nothing is looked up, the observer is not called, and the
    // last three arguments are not used.
    [[nodiscard]] NxResult AsyncResolve(CNxDnsRecord*& record, const CNxString& host,
                                        INxObserver* observer, int, CNxThread* thread);

private:
    friend class CNxSingletonT<CNxDnsManager>;
    CNxDnsManager() = default;
};
