// Inside the library only: a look-up that is under way, and what it goes by.
#pragma once

#include <utility>
#include <vector>

#include <nx/foundation/CNxAutoPtr.h>
#include <nx/net/CNxInetAddr.h>
#include <nx/resolve/CNxDnsRecord.h>

class CDnsChannel;

struct CDnsSettings {
    std::vector<CNxInetAddr> m_servers;  // none: those of resolv.conf(5)
    int m_timeoutMs = 500;
    int m_tries = 4;
};

// Belongs to the resolver thread until it is complete.
class CDnsLookup {
public:
    // May throw std::bad_alloc; what comes later needs no memory.
    explicit CDnsLookup(const CNxString& hostName) : m_record(new CNxDnsRecord(hostName)) {}

    const CNxString& GetHostName() const { return m_record->GetHostName(); }
    CNxDnsRecord* GetRecord() const { return m_record.Get(); }

    // Once. Fills the record.
    void Complete(NxResult result, std::vector<CNxInetAddr> addresses, long ttlSeconds) {
        m_record->Complete(result, std::move(addresses), ttlSeconds);
    }

    // Who looks it up.
    CDnsChannel* m_channel = nullptr;

private:
    const CNxAutoPtr<CNxDnsRecord> m_record;
};
