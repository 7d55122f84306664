#include <common/Clock.h>
#include <common/Program.h>
#include <nx/thread/CNxThreadManager.h>
#include <reliable_sender/Datagrams.h>
#include <reliable_sender/Peer.h>
#include <reliable_sender/Sender.h>

#include <algorithm>
#include <cassert>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

namespace reliable_sender {

namespace {

// By then the queue has sent a request for the last time.
const CNxTimeValue c_queueTakes(20, 0);

CNxTimeValue FromMs(std::uint64_t ms) {
    CNxTimeValue time;
    time.SetByTotalMsec(static_cast<long>(ms));
    return time;
}

}  // namespace

Sender::Request::Request(Sender& owner, unsigned int number)
    : m_owner(owner), m_number(number), m_postedAt(examples::NowNs()) {
    examples::Require(m_givenUp.Schedule(this, c_queueTakes, 0, NX_THREAD_NETWORK),
                      "time a request");
}

Sender::Sender(const Options& options, const CNxInetAddr& peer, INxReactor& reactor,
               std::function<void()> onEnd)
    : m_options(options), m_reactor(reactor), m_onEnd(std::move(onEnd)), m_peer(peer) {}

bool Sender::Open() {
    // Not connected: an answer of the system that nobody listens there would end the handler, and
    // somebody may listen later.
    if (m_socket.Open(CNxInetAddr(m_peer.GetType())) != 0 ||
        m_reactor.RegisterHandler(this, NX_MASK_READ) != NX_OK) {
        return false;
    }
    // Here, because it takes the timers of the thread that makes it.
    m_queue = std::make_unique<CNxSimpleMessageQueue>();
    if (m_queue->Init(this) != NX_OK) {
        return false;
    }
    if (m_options.timeout != 0 && m_deadline.Schedule(this, FromMs(m_options.timeout * 1000), 1,
                                                      NX_THREAD_NETWORK) != NX_OK) {
        return false;
    }
    return m_pace.Schedule(this, FromMs(m_options.interval), m_options.requests,
                           NX_THREAD_NETWORK) == NX_OK;
}

void Sender::Close() {
    m_pace.Cancel();
    m_deadline.Cancel();
    m_open.clear();
    m_queue.reset();
    if (GetHandle() != -1) {
        m_reactor.RemoveHandler(this, NX_MASK_ALL_EVENTS);
        m_socket.Close();
    }
}

void Sender::OnTimer(CNxTimerPreciseWrapperID* id) {
    if (id == &m_deadline) {
        m_onEnd();
    } else {
        PostNext();
    }
}

void Sender::PostNext() {
    const unsigned int number = ++m_progress.posted;
    m_open.emplace(std::piecewise_construct, std::forward_as_tuple(number),
                   std::forward_as_tuple(*this, number));
    Post(number);
}

void Sender::Post(unsigned int number) {
    const std::string datagram = MakeRequest(number, m_options.size);
    examples::Require(m_queue->PostRequest(number, datagram.data(), datagram.size(), nullptr),
                      "post a request");
}

// The queue's lock is held: sends, and nothing else.
void Sender::OnSendMessage(void* /*userData*/, const char* data, unsigned long size) {
    ++m_progress.sent;
    SendTo(m_socket, data, size, m_peer);
}

int Sender::OnInput(int /*fd*/) {
    CNxInetAddr from(m_peer.GetType());
    long size = 0;
    while ((size = ReceiveFrom(m_socket, m_reactor, from)) != -1) {
        const std::string_view datagram(m_reactor.GetBufferPtr(), static_cast<std::size_t>(size));
        unsigned int number = 0;
        if (from == m_peer && ReadAnswer(datagram, number)) {
            TakeAnswer(number);
        }
    }
    return 0;
}

void Sender::TakeAnswer(unsigned int number) {
    const auto found = m_open.find(number);
    // The answer to a request that was sent again comes again.
    if (found == m_open.end()) {
        return;
    }
    const std::int64_t took = examples::NowNs() - found->second.m_postedAt;
    m_progress.longestNs = std::max(m_progress.longestNs, took);
    m_queue->RcvResponse(number);
    m_open.erase(found);
    assert(m_progress.answered + m_open.size() < m_progress.posted);
    if (++m_progress.answered == m_options.requests) {
        m_onEnd();
    }
}

}  // namespace reliable_sender
