#include <nx/foundation/CNxTimeValue.h>
#include <nx/net/CNxInetAddr.h>
#include <nx/resolve/CDnsManagerImp.h>
#include <nx/resolve/CNxDnsManager.h>

#include <cassert>

CNxDnsManager* CNxDnsManager::Instance() {
    return CNxSingletonT<CNxDnsManager>::Instance();
}

CNxDnsManager::CNxDnsManager() : m_imp(new CDnsManagerImp(NX_THREAD_RESOLVER)) {}

CNxDnsManager::~CNxDnsManager() {
    m_imp->End();
}

NxResult CNxDnsManager::AsyncResolve(CNxDnsRecord*& record, const CNxString& host,
                                     INxObserver* observer, int allowExpired, CNxThread* thread) {
    return m_imp->AsyncResolve(record, host, observer, allowExpired, thread);
}

NxResult CNxDnsManager::CancelResolve(INxObserver* observer) {
    return m_imp->CancelResolve(observer);
}

NxResult CNxDnsManager::RefreshHost(const CNxString& host) {
    return m_imp->RefreshHost(host);
}

NxResult CNxDnsManager::SetServers(const CNxString& servers) {
    return m_imp->SetServers(servers);
}

NxResult CNxDnsManager::SetTimeout(const CNxTimeValue& timeout, int tries) {
    return m_imp->SetTimeout(timeout, tries);
}

void CNxDnsManager::SetCacheSize(size_t records) {
    m_imp->SetCacheSize(records);
}

NxResult CNxInetAddr::TryResolve() {
    if (m_hostName.empty()) {
        return NX_OK;
    }
    CNxDnsRecord* found = nullptr;
    const NxResult result =
        CNxDnsManager::Instance()->AsyncResolve(found, m_hostName, nullptr, 1, nullptr);
    if (result != NX_OK) {
        return result;
    }
    const auto record = CNxAutoPtr<CNxDnsRecord>::Adopt(found);
    const unsigned short port = m_port;
    const NxResult taken = record->GetFirstIPAddr(*this);
    assert(taken == NX_OK && IsResolved());
    // What was found may be of another family, which keeps the port all the same.
    static_cast<void>(SetPort(port));
    return taken;
}
