#include <netinet/in.h>
#include <nx/foundation/CCallOut.h>
#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/CNxMutexThread.h>
#include <nx/stream/CDatagramQueue.h>
#include <nx/stream/CNxDatagram.h>
#include <nx/stream/CReceivedDatagrams.h>
#include <nx/stream/CUnixPath.h>
#include <nx/stream/datagram_socket.h>
#include <nx/stream/dual_endpoint.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <new>
#include <utility>

namespace {

// What the system refuses for want of memory, or because a unix peer is full, it may take later; it
// does not say when. Asked again and again in vain, it is asked less often.
constexpr long c_firstRetryMs = 1;
constexpr long c_lastRetryMs = 64;

}  // namespace

// What a call receives, and whom it calls: both stay for its length.
struct CNxDatagram::CReceiver {
    CReceiver(std::shared_ptr<const OnReceived> onReceivedDatagram, size_t maxReceived)
        : batch(maxReceived), onReceived(std::move(onReceivedDatagram)) {}

    void HandOut(size_t index) const {
        const CNxEndpoint from = batch.GetSender(index);
        if (*onReceived) {
            CallOut("OnReceived", [&] {
                (*onReceived)({from, batch.GetBytes(index), batch.IsTruncated(index)});
            });
        }
    }

    CReceivedDatagrams batch;
    const std::shared_ptr<const OnReceived> onReceived;
};

// What other threads send until the loop fetches it, and the event by which it does. In the
// reactor's queue once for every post, and its owner's; the owner may be gone first.
class CNxDatagram::CInbox : public INxEvent, public CNxReferenceControlT<CNxMutexThread> {
public:
    explicit CInbox(CNxDatagram& owner) : m_owner(&owner) {}

    NxResult OnEventFire() override {
        if (m_owner != nullptr) {
            m_owner->OnFlushAsked();
        }
        return NX_OK;
    }
    void OnDestorySelf() override { ReleaseReference(); }

    [[nodiscard]] NxResult Post(INxReactor& reactor) {
        AddReference();
        return reactor.PostEvent(this);
    }

    void Open(size_t maxUnsent) {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        m_isOpen = true;
        m_isAsked = false;
        m_maxUnsent = maxUnsent;
        m_dropped = 0;
    }

    // Returns how many it drops.
    size_t Close() {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        m_isOpen = false;
        const size_t count = m_queue.GetCount();
        m_queue.Clear();
        return count;
    }

    // `mustPost`: nobody has asked the loop to fetch it.
    template <class Put>
    [[nodiscard]] NxResult Add(const Put& put, bool& mustPost) {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        if (!m_isOpen) {
            return NX_ERROR_NOT_INITIALIZED;
        }
        if (m_queue.GetCost() >= m_maxUnsent) {
            ++m_dropped;
            return NX_ERROR_NOT_AVAILABLE;
        }
        put(m_queue);
        mustPost = !std::exchange(m_isAsked, true);
        return NX_OK;
    }

    // The next one asks again.
    void ForgetPost() {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        m_isAsked = false;
    }

    // Into one that is empty.
    void Fetch(CDatagramQueue& to) {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        to.TakeAll(m_queue);
        m_isAsked = false;
    }

    std::uint64_t GetDropped() {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        return m_dropped;
    }

    // For the reactor's thread; null when it is gone.
    CNxDatagram* m_owner;

private:
    CNxMutexThread m_mutex;
    bool m_isOpen NX_GUARDED_BY(m_mutex) = false;
    bool m_isAsked NX_GUARDED_BY(m_mutex) = false;
    size_t m_maxUnsent NX_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_dropped NX_GUARDED_BY(m_mutex) = 0;
    CDatagramQueue m_queue NX_GUARDED_BY(m_mutex);
};

CNxDatagram::CNxDatagram(INxReactor& reactor, OnReceived onReceived)
    : m_reactor(reactor),
      m_onReceived(std::make_shared<const OnReceived>(std::move(onReceived))),
      m_unsent(std::make_unique<CDatagramQueue>()),
      m_inbox(new CInbox(*this)) {}

CNxDatagram::~CNxDatagram() {
    Close();
    m_inbox->m_owner = nullptr;
}

NxResult CNxDatagram::Open(const CNxEndpoint& endpoint, const CNxDatagramOptions& options) {
    if (GetHandle() != -1) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    unsigned interface = 0;
    if (endpoint.GetFamily() == AF_UNSPEC || !AreInRange(options) ||
        !FindInterface(options.multicastInterface, interface)) {
        return NX_ERROR_INVALID_ARG;
    }
    if (!OpenSocket(endpoint, options, interface) || !Watch(NX_MASK_READ)) {
        const CKeptErrno keptErrno;
        CloseSocket();
        return NX_ERROR_FAILURE;
    }
    m_thread.store(pthread_self(), std::memory_order_relaxed);
    m_counts = {};
    m_lastDropped = 0;
    m_receivedPerTurn = options.receivedPerTurn;
    m_maxUnsent = options.maxUnsent;
    m_sending = ESending::FREE;
    m_retryMs = c_firstRetryMs;
    m_isFlushAsked = false;
    m_mustFetch = false;
    m_inbox->Open(options.maxUnsent);
    return NX_OK;
}

// False with errno; what was made stays for the caller to take back.
bool CNxDatagram::OpenSocket(const CNxEndpoint& endpoint, const CNxDatagramOptions& options,
                             unsigned interface) {
    try {
        m_receiver = std::make_shared<CReceiver>(m_onReceived, options.maxReceived);
        m_path = std::make_unique<CUnixPath>();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
    return OpenAtEither(endpoint,
                        [&](const CNxEndpoint& at) { return OpenAt(at, options, interface); });
}

bool CNxDatagram::OpenAt(const CNxEndpoint& endpoint, const CNxDatagramOptions& options,
                         unsigned interface) {
    if (m_socket.Open(endpoint.GetFamily(), SOCK_DGRAM | SOCK_NONBLOCK, 0, 0) != 0 ||
        !SetUpDatagramSocket(GetHandle(), endpoint, options, interface) ||
        !Bind(endpoint, options.unixMode)) {
        return false;
    }
    const CNxEndpoint& peer = options.peer;
    if ((peer.GetFamily() != AF_UNSPEC &&
         connect(GetHandle(), peer.GetAddress(), peer.GetSize()) != 0) ||
        !FindBound(GetHandle(), endpoint, m_endpoint)) {
        return false;
    }
    m_unsent->UseSegments(options.segment && CDatagramQueue::CanSegment(GetHandle()));
    return true;
}

bool CNxDatagram::Bind(const CNxEndpoint& endpoint, unsigned unixMode) {
    if (endpoint.GetFamily() != AF_UNIX) {
        return bind(GetHandle(), endpoint.GetAddress(), endpoint.GetSize()) == 0;
    }
    if (CUnixPath::HasPath(endpoint)) {
        return m_path->Bind(GetHandle(), endpoint, unixMode, CUnixPath::c_datagram) == NX_OK;
    }
    // Bound without a name the system would give it one.
    return endpoint.GetUnixName().empty() ||
           bind(GetHandle(), endpoint.GetAddress(), endpoint.GetSize()) == 0;
}

void CNxDatagram::Close() {
    if (GetHandle() == -1) {
        return;
    }
    Flush();
    m_counts.droppedSending += m_unsent->GetCount() + m_inbox->Close();
    m_unsent->Clear();
    m_reactor.CancelTimer(this);
    m_reactor.RemoveHandler(this, NX_MASK_ALL_EVENTS);
    m_isWatched = false;
    CloseSocket();
    if (m_isClosed != nullptr) {
        *std::exchange(m_isClosed, nullptr) = true;
    }
}

void CNxDatagram::CloseSocket() {
    m_receiver = nullptr;
    m_endpoint = CNxEndpoint();
    m_path = nullptr;
    m_socket.Close();
}

bool CNxDatagram::Watch(long mask) {
    m_isWatched = NxSucceeded(m_reactor.RegisterHandler(this, mask));
    return m_isWatched;
}

NxResult CNxDatagram::Send(const CNxEndpoint& to, std::string_view bytes) {
    return SendWith(bytes.size(), [&](CDatagramQueue& queue) { queue.Put(to, bytes); });
}

NxResult CNxDatagram::Send(const CNxEndpoint& to, CNxMessageChain&& chain) {
    const CNxMessageChain taken(std::move(chain));
    return SendWith(taken.GetSize(), [&](CDatagramQueue& queue) { queue.Put(to, taken); });
}

NxResult CNxDatagram::Send(const CNxEndpoint& to, const iovec* pieces, size_t count) {
    if (pieces == nullptr && count != 0) {
        return NX_ERROR_INVALID_ARG;
    }
    size_t size = 0;
    for (const iovec* piece = pieces; piece != pieces + count; ++piece) {
        if (piece->iov_len > c_maxDatagram || (piece->iov_base == nullptr && piece->iov_len != 0)) {
            return NX_ERROR_INVALID_ARG;
        }
        size += piece->iov_len;
    }
    return SendWith(size, [&](CDatagramQueue& queue) { queue.Put(to, pieces, count); });
}

template <class Put>
NxResult CNxDatagram::SendWith(size_t size, const Put& put) {
    if (size > c_maxDatagram) {
        return NX_ERROR_INVALID_ARG;
    }
    try {
        return m_thread.load(std::memory_order_relaxed) == pthread_self() ? SendHere(put)
                                                                          : SendFromElsewhere(put);
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
}

template <class Put>
NxResult CNxDatagram::SendHere(const Put& put) {
    if (GetHandle() == -1) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    if (m_unsent->GetCost() >= m_maxUnsent) {
        ++m_counts.droppedSending;
        return NX_ERROR_NOT_AVAILABLE;
    }
    put(*m_unsent);
    if (m_unsent->GetCount() >= CDatagramQueue::c_batch) {
        Flush();
    } else if (!m_isFlushAsked && m_isClosed == nullptr && m_sending == ESending::FREE) {
        // A loop that takes no events takes it with the next batch, or by Flush.
        m_isFlushAsked = m_inbox->Post(m_reactor) == NX_OK;
    }
    return NX_OK;
}

template <class Put>
NxResult CNxDatagram::SendFromElsewhere(const Put& put) {
    bool mustPost = false;
    const NxResult added = m_inbox->Add(put, mustPost);
    if (added != NX_OK || !mustPost) {
        return added;
    }
    const NxResult posted = m_inbox->Post(m_reactor);
    if (posted != NX_OK) {
        m_inbox->ForgetPost();
    }
    return posted;
}

void CNxDatagram::OnFlushAsked() {
    m_isFlushAsked = false;
    m_mustFetch = true;
    Flush();
}

void CNxDatagram::Flush() {
    if (GetHandle() == -1 || m_sending != ESending::FREE) {
        return;
    }
    CDatagramQueue::CTally tally;
    CDatagramQueue::EResult result = m_unsent->SendTo(GetHandle(), tally);
    while (result == CDatagramQueue::EResult::EMPTY && std::exchange(m_mustFetch, false)) {
        m_inbox->Fetch(*m_unsent);
        result = m_unsent->SendTo(GetHandle(), tally);
    }
    if (tally.sent != 0) {
        m_retryMs = c_firstRetryMs;
    }
    m_counts.sent += tally.sent;
    m_counts.droppedSending += tally.dropped;
    if (result == CDatagramQueue::EResult::EMPTY) {
        return;
    }
    // Whether a unix peer has room is not told by our own socket.
    const bool isTold =
        result == CDatagramQueue::EResult::BLOCKED && m_endpoint.GetFamily() != AF_UNIX;
    if (isTold && Watch(NX_MASK_READ | NX_MASK_WRITE)) {
        m_sending = ESending::WAITS_FOR_ROOM;
    } else {
        m_sending = ESending::WAITS_FOR_TIME;
        TryLater();
    }
}

void CNxDatagram::TryLater() {
    CNxTimeValue delay;
    delay.SetByTotalMsec(m_retryMs);
    m_retryMs = std::min(2 * m_retryMs, c_lastRetryMs);
    if (!NxSucceeded(m_reactor.ScheduleTimer(this, nullptr, delay, 1))) {
        // Nobody will call: the next send tries.
        m_sending = ESending::FREE;
    }
}

void CNxDatagram::OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) {
    if (m_sending == ESending::WAITS_FOR_TIME) {
        m_sending = ESending::FREE;
    }
    Serve();
}

int CNxDatagram::OnInput(int /*fd*/) {
    Serve();
    return 0;
}

int CNxDatagram::OnOutput(int /*fd*/) {
    if (m_sending == ESending::WAITS_FOR_ROOM) {
        m_sending = ESending::FREE;
        // Without it there is a call more for each time that there is room.
        static_cast<void>(Watch(NX_MASK_READ));
        Flush();
    }
    return 0;
}

// What an ICMP message has said of something that was sent: the reactor has taken the error, and
// the socket is as good as before.
int CNxDatagram::OnClose(int /*fd*/, long /*mask*/) {
    m_isWatched = false;
    if (m_sending == ESending::WAITS_FOR_ROOM) {
        m_sending = ESending::FREE;
    }
    Serve();
    return 0;
}

// Receives and sends what there is. This may be gone when it returns.
void CNxDatagram::Serve() {
    if (!m_isWatched && !Watch(NX_MASK_READ)) {
        TryLater();
    }
    if (Receive()) {
        Flush();
    }
}

// False when this was closed meanwhile, and may be gone.
bool CNxDatagram::Receive() {
    const std::shared_ptr<CReceiver> receiver = m_receiver;
    const int socket = GetHandle();
    bool isClosed = false;
    m_isClosed = &isClosed;
    for (size_t count = 0;;) {
        const int got = receiver->batch.Receive(socket);
        const int error = errno;
        if (got > 0 && !HandOut(*receiver, static_cast<size_t>(got), isClosed)) {
            return false;
        }
        if (got == -1 && !MayReceiveAfter(error)) {
            break;
        }
        if (got > 0 && static_cast<size_t>(got) < CReceivedDatagrams::c_most) {
            break;
        }
        // An error counts too: there may be another one behind it.
        count += got > 0 ? static_cast<size_t>(got) : 1;
        if (count >= m_receivedPerTurn && m_reactor.NotifyHandler(this, NX_MASK_READ) == NX_OK) {
            break;
        }
    }
    m_isClosed = nullptr;
    return true;
}

bool CNxDatagram::HandOut(CReceiver& receiver, size_t count, const bool& isClosed) {
    m_counts.received += count;
    std::uint32_t dropped = 0;
    if (receiver.batch.FindDropped(count - 1, dropped)) {
        m_counts.droppedReceiving += dropped - std::exchange(m_lastDropped, dropped);
    }
    for (size_t i = 0; i < count; ++i) {
        receiver.HandOut(i);
        if (isClosed) {
            return false;
        }
    }
    return true;
}

bool CNxDatagram::MayReceiveAfter(int error) {
    if (error == ENOMEM || error == ENOBUFS) {
        TryLater();
        return false;
    }
    // Others are of datagrams that were sent before, or EINTR.
    return error != EAGAIN;
}

NxResult CNxDatagram::Join(const CNxEndpoint& group, const std::string& interface) {
    return ChangeMembership(GetHandle(), group, interface, MCAST_JOIN_GROUP);
}

NxResult CNxDatagram::Leave(const CNxEndpoint& group, const std::string& interface) {
    return ChangeMembership(GetHandle(), group, interface, MCAST_LEAVE_GROUP);
}

CNxDatagramCounts CNxDatagram::GetCounts() const {
    CNxDatagramCounts counts = m_counts;
    counts.droppedSending += m_inbox->GetDropped();
    return counts;
}
