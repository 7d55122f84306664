#include <nx/thread/CNxSimpleMessageQueue.h>

#include <algorithm>
#include <cassert>
#include <new>

namespace {

constexpr int c_resendSeconds = 2;
constexpr unsigned int c_maxResends = 10;

}  // namespace

CNxSimpleMessage::CNxSimpleMessage(unsigned int id, const char* data, unsigned long size,
                                   void* userData)
    : m_id(id), m_data(new char[size]), m_size(size), m_userData(userData) {
    std::copy_n(data, size, m_data.get());
}

CNxSimpleMessageQueue::CNxSimpleMessageQueue() {
    // Without a timer queue on this thread requests go out once; there is nobody to tell.
    static_cast<void>(m_timer.Schedule(this, CNxTimeValue(c_resendSeconds), 0));
}

CNxSimpleMessageQueue::~CNxSimpleMessageQueue() {
    m_timer.Cancel();
}

NxResult CNxSimpleMessageQueue::Init(CNxSimpleMessageQueueSink* sink) {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    m_sink = sink;
    return NX_OK;
}

NxResult CNxSimpleMessageQueue::PostRequest(unsigned int id, const char* data, unsigned long size,
                                            void* userData) {
    if (data == nullptr && size != 0) {
        return NX_ERROR_INVALID_ARG;
    }
    // Copied before the lock is taken.
    Messages posted;
    try {
        posted.emplace_back(id, data, size, userData);
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (m_sink == nullptr) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    m_pending.splice(m_pending.end(), posted);
    Send_i(m_pending.back(), data);
    return NX_OK;
}

NxResult CNxSimpleMessageQueue::RcvResponse(unsigned int id) {
    Messages answered;
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    TakeOut_i(answered, [id](const CNxSimpleMessage& message) { return message.m_id == id; });
    return NX_OK;
}

void CNxSimpleMessageQueue::OnTimer(CNxTimerWrapperID* /*id*/) {
    Messages dropped;
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    for (CNxSimpleMessage& message : m_pending) {
        Send_i(message, message.m_data.get());
    }
    TakeOut_i(dropped,
              [](const CNxSimpleMessage& message) { return message.m_sendCount > c_maxResends; });
}

void CNxSimpleMessageQueue::Send_i(CNxSimpleMessage& message, const char* data) {
    m_mutex.AssertHeld();
    if (m_sink != nullptr) {
        m_sink->OnSendMessage(message.m_userData, data, message.m_size);
    }
    assert(message.m_sendCount <= c_maxResends);
    ++message.m_sendCount;
}

template <class Predicate>
void CNxSimpleMessageQueue::TakeOut_i(Messages& out, Predicate isOver) {
    for (auto at = m_pending.begin(); at != m_pending.end();) {
        const auto next = std::next(at);
        if (isOver(*at)) {
            out.splice(out.end(), m_pending, at);
        }
        at = next;
    }
}
