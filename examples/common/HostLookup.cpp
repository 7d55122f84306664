#include <common/HostLookup.h>
#include <nx/foundation/CNxAutoPtr.h>
#include <nx/foundation/CNxEventThread.h>
#include <nx/foundation/CNxTimeValue.h>
#include <nx/foundation/INxObserver.h>
#include <nx/resolve/CNxDnsManager.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>
#include <sys/socket.h>

#include <algorithm>

namespace examples {

namespace {

using Record = CNxAutoPtr<CNxDnsRecord>;

class Answer : public INxObserver {
public:
    void OnObserve(const char* /*topic*/, void* data) override {
        m_record = static_cast<CNxDnsRecord*>(data);
        m_isThere.Signal();
    }

    // Null when the thread that would tell has ended, and so tells nobody any more.
    const Record& Wait(const CNxThread& teller) {
        CNxTimeValue second(1);
        while (m_isThere.Wait(&second) != NX_OK && teller.IsRunning()) {
        }
        return m_record;
    }

private:
    CNxEventThread m_isThere{1, 0};
    Record m_record;
};

std::string Describe(const std::string& host, NxResult result) {
    const std::string what = "cannot find the address of '" + host + "': ";
    switch (result) {
        case NX_ERROR_NOT_AVAILABLE:
            return what + "there is no such host, or it has none";
        case NX_ERROR_TIMEOUT:
            return what + "no name server answers";
        default:
            return what + "the name servers fail (result " + std::to_string(result) + ")";
    }
}

CNxInetAddr Choose(const CNxDnsRecord& record) {
    const auto& all = record.GetAddresses();
    const auto v4 = std::find_if(all.begin(), all.end(), [](const CNxInetAddr& address) {
        return address.GetType() == AF_INET;
    });
    return v4 != all.end() ? *v4 : all.front();
}

}  // namespace

std::string LookUpHost(const std::string& host, unsigned short port, CNxInetAddr& address) {
    CNxThread* const network = CNxThreadManager::Instance()->GetThread(NX_THREAD_NETWORK);
    Answer answer;
    CNxDnsRecord* found = nullptr;
    NxResult result = CNxDnsManager::Instance()->AsyncResolve(found, CNxString(host.c_str()),
                                                              &answer, 0, network);
    Record record = Record::Adopt(found);
    if (result == NX_ERROR_WOULD_BLOCK) {
        record = answer.Wait(*network);
        result = record ? record->GetResult() : NX_ERROR_NOT_INITIALIZED;
    }
    if (result != NX_OK) {
        return Describe(host, result);
    }
    address = Choose(*record);
    static_cast<void>(address.SetPort(port));  // it is one of the two families
    return {};
}

}  // namespace examples
