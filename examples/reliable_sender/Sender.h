// Sends the requests and sees to it that each is answered.
#pragma once

#include <nx/net/CNxInetAddr.h>
#include <nx/net/CNxSocket.h>
#include <nx/reactor/INxReactor.h>
#include <nx/thread/CNxSimpleMessageQueue.h>
#include <nx/thread/CNxTimerPreciseWrapperID.h>
#include <reliable_sender/Options.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

namespace reliable_sender {

struct Progress {
    unsigned int posted = 0;
    unsigned int answered = 0;
    // Datagrams, every sending of a request.
    std::uint64_t sent = 0;
    // The longest time from a request to its answer.
    std::int64_t longestNs = 0;
};

// A message queue sends each request again every 2 seconds, but not for ever; whatever it has given
// up is posted to it again. A precise timer paces the requests, one for each request tells when the
// queue has given it up, and one ends it all when --timeout is over.
//
// Made and destroyed on the main thread; Open, Close and all callbacks are the network thread's, so
// that cancelling a timer is exact.
class Sender : public INxEventHandler,
               private CNxSimpleMessageQueueSink,
               private CNxTimerPreciseWrapperIDSink {
public:
    // `onEnd` is called when every request is answered or the time is over.
    Sender(const Options& options, const CNxInetAddr& peer, INxReactor& reactor,
           std::function<void()> onEnd);
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    // False when there is no socket to be had or no timer.
    [[nodiscard]] bool Open();

    // Ends the run where it stands. To be called once, also after `onEnd` and a failed Open.
    void Close();

    // Once closed, any thread.
    const Progress& GetProgress() const { return m_progress; }

    int GetHandle() const override { return m_socket.GetHandle(); }
    int OnInput(int fd) override;

private:
    // One that is not answered yet. Its timer says that the queue has given it up.
    struct Request : CNxTimerPreciseWrapperIDSink {
        Request(Sender& owner, unsigned int number);
        ~Request() override { m_givenUp.Cancel(); }
        void OnTimer(CNxTimerPreciseWrapperID* /*id*/) override { m_owner.Post(m_number); }

        Sender& m_owner;
        const unsigned int m_number;
        const std::int64_t m_postedAt;
        CNxTimerPreciseWrapperID m_givenUp;
    };

    void OnTimer(CNxTimerPreciseWrapperID* id) override;
    void OnSendMessage(void* userData, const char* data, unsigned long size) override;

    void PostNext();
    void Post(unsigned int number);
    void TakeAnswer(unsigned int number);

    const Options m_options;
    INxReactor& m_reactor;
    const std::function<void()> m_onEnd;
    const CNxInetAddr m_peer;
    CNxSocketUdp m_socket;
    std::unique_ptr<CNxSimpleMessageQueue> m_queue;
    std::map<unsigned int, Request> m_open;
    CNxTimerPreciseWrapperID m_pace;
    CNxTimerPreciseWrapperID m_deadline;
    Progress m_progress;
};

}  // namespace reliable_sender
