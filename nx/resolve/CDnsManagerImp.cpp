#include <nx/foundation/CNxAutoPtr.h>
#include <nx/resolve/CNxDnsManager.h>

#include <cassert>

NxResult CNxDnsRecord::GetFirstIPAddr(CNxInetAddr& address) const {
    if (m_addresses.empty()) {
        return NX_ERROR_NOT_AVAILABLE;
    }
    address = m_addresses.front();
    return NX_OK;
}

CNxDnsManager* CNxDnsManager::Instance() {
    return CNxSingletonT<CNxDnsManager>::Instance();
}

NxResult CNxDnsManager::AsyncResolve(CNxDnsRecord*& record, const CNxString& /*host*/,
                                     INxObserver* /*observer*/, int, CNxThread* /*thread*/) {
    record = nullptr;
    return NX_ERROR_NOT_AVAILABLE;
}

NxResult CNxInetAddr::TryResolve() {
    if (m_hostName.empty()) {
        return NX_OK;
    }
    CNxDnsRecord* found = nullptr;
    const NxResult result =
        CNxDnsManager::Instance()->AsyncResolve(found, m_hostName, nullptr, 1, nullptr);
    const auto record = CNxAutoPtr<CNxDnsRecord>::Adopt(found);
    if (result != NX_OK) {
        return result;
    }
    const unsigned short port = m_port;
    if (!record || record->GetFirstIPAddr(*this) != NX_OK) {
        return NX_ERROR_NOT_AVAILABLE;
    }
    // What was found may be of another family, which keeps the port all the same.
    static_cast<void>(SetPort(port));
    assert(IsResolved());
    return NX_OK;
}
