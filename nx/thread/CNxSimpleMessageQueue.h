// Requests that are sent again and again until a response comes: reliability for a transport that
// loses messages. The transport itself is the sink's.
#pragma once

#include <list>
#include <memory>

#include <nx/foundation/CNxMutexThread.h>
#include <nx/thread/CNxTimerWrapperID.h>

// A request that waits for its response, with a copy of its bytes.
class CNxSimpleMessage {
public:
    CNxSimpleMessage(unsigned int id, const char* data, unsigned long size, void* userData);
    CNxSimpleMessage(const CNxSimpleMessage&) = delete;
    CNxSimpleMessage& operator=(const CNxSimpleMessage&) = delete;

    const unsigned int m_id;
    const std::unique_ptr<char[]> m_data;
    const unsigned long m_size;
    void* const m_userData;  // not owned
    unsigned int m_sendCount = 0;
};

class CNxSimpleMessageQueueSink {
public:
    // Transmit this. With the queue's lock held: CALLING THE QUEUE FROM HERE NEVER RETURNS. On the
    // thread that posts, or on the one that made the queue. The bytes are valid during the call.
    virtual void OnSendMessage(void* userData, const char* data, unsigned long size) = 0;

    virtual ~CNxSimpleMessageQueueSink() = default;
};

// Every request is handed to the sink when it is posted and again with every turn of a timer of 2
// s, until its response comes. With the tenth turn, 18 to 20 s after the post, it is handed over
// for the eleventh and last time and dropped; NOBODY IS TOLD.
//
// Made and destroyed on one thread, which must have a timer queue (CNxTimerWrapperID): without one
// nothing is ever sent again. PostRequest and RcvResponse may be called on any thread.
class CNxSimpleMessageQueue : public CNxTimerWrapperIDSink {
public:
    CNxSimpleMessageQueue();

    // Drops what waits.
    ~CNxSimpleMessageQueue() override;

    CNxSimpleMessageQueue(const CNxSimpleMessageQueue&) = delete;
    CNxSimpleMessageQueue& operator=(const CNxSimpleMessageQueue&) = delete;

    // Sets the sink, which is not owned, before the first post. Without one (null) what waits goes
    // on to be counted and dropped as if it were sent. NX_OK.
    NxResult Init(CNxSimpleMessageQueueSink* sink);

    // Hands the bytes to the sink and keeps a copy until the response comes. `id` is what the
    // response names; several requests may share one. `size` may be 0.
    // NX_OK. NX_ERROR_NOT_INITIALIZED without a sink and NX_ERROR_INVALID_ARG for null data of a
    // size above 0, NX_ERROR_FAILURE without memory; nothing is kept then.
    NxResult PostRequest(unsigned int id, const char* data, unsigned long size, void* userData);

    // Drops every request with that identifier. NX_OK, also when there is none.
    NxResult RcvResponse(unsigned int id);

    // The turn of the timer.
    void OnTimer(CNxTimerWrapperID* id) override;

private:
    using Messages = std::list<CNxSimpleMessage>;

    void Send_i(CNxSimpleMessage& message, const char* data) NX_REQUIRES(m_mutex);

    // Moves what is over to `out`, to be freed without the lock.
    template <class Predicate>
    void TakeOut_i(Messages& out, Predicate isOver) NX_REQUIRES(m_mutex);

    CNxMutexThread m_mutex;
    CNxTimerWrapperID m_timer;
    Messages m_pending NX_GUARDED_BY(m_mutex);
    CNxSimpleMessageQueueSink* m_sink NX_GUARDED_BY(m_mutex) = nullptr;
};
