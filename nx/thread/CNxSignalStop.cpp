#include <nx/foundation/own_lines.h>
#include <nx/thread/CNxSignalStop.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>

CNxSignalStop* CNxSignalStop::Instance() {
    // Not destroyed with the statics: it may still be in a queue while the process exits.
    static CNxSignalStop* const s_instance = new CNxSignalStop;
    return s_instance;
}

NxResult CNxSignalStop::Launch(int /*signal*/) {
    if (m_networkThread.load() != nullptr) {
        return NX_OK;
    }
    CNxThread* const network =
        CNxThreadManager::Instance()->GetThread(CNxThreadManager::GetNetworkThreadModule());
    if (network == nullptr) {
        return NX_ERROR_FAILURE;
    }
    if (!CNxThreadManager::IsEqualCurrentThread(network->GetThreadId())) {
        return NX_OK;
    }
    m_networkThread.store(network);
    INxEventQueue* const queue = network->GetEventQueue();
    if (queue == nullptr) {
        return NX_ERROR_FAILURE;
    }
    const NxResult result = queue->PostEvent(this);
    SayOnStdout("CNxSignalStop::CNxSignalStop, PostEvent, rv=%d.\n", static_cast<int>(result));
    return result;
}

NxResult CNxSignalStop::OnEventFire() {
    SayOnStdout("CNxSignalStop::OnEventFire. tid=%d.\n",
                static_cast<int>(CNxThreadManager::GetThreadSelfId()));
    CNxThread* const mainThread = CNxThreadManager::Instance()->GetThread(NX_THREAD_MAIN);
    return mainThread != nullptr ? mainThread->Stop(nullptr) : NX_ERROR_NULL_POINTER;
}
