#include <net/if.h>
#include <netinet/in.h>
#include <nx/foundation/CCallOut.h>
#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/CNxMutexThread.h>
#include <nx/stream/CDatagramQueue.h>
#include <nx/stream/CNxDatagram.h>
#include <nx/stream/CUnixPath.h>
#include <nx/stream/dual_endpoint.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace {

constexpr size_t c_maxDatagram = 65535;
constexpr int c_maxHops = 255;

// What the system refuses for want of memory, or because a unix peer is full, it may take later; it
// does not say when. Asked again and again in vain, it is asked less often.
constexpr long c_firstRetryMs = 1;
constexpr long c_lastRetryMs = 64;

bool AreInRange(const CNxDatagramOptions& options) {
    const auto isHops = [](int ttl) { return ttl >= 0 && ttl <= c_maxHops; };
    return options.maxReceived >= 1 && options.maxReceived <= c_maxDatagram &&
           options.receivedPerTurn >= 1 && options.maxUnsent >= 1 && options.receiveBuffer >= 0 &&
           options.sendBuffer >= 0 && isHops(options.ttl) && isHops(options.multicastTtl);
}

// 0 for "", which leaves it to the system. False when there is none of that name.
bool FindInterface(const std::string& name, unsigned& index) {
    index = name.empty() ? 0 : if_nametoindex(name.c_str());
    return name.empty() || index != 0;
}

// What is asked of a socket before it is bound. The first failure is kept, with its errno.
class CSetting {
public:
    explicit CSetting(int socket) : m_socket(socket) {}

    template <class Value>
    void Set(int level, int option, const Value& value) {
        m_isGood = m_isGood && setsockopt(m_socket, level, option, &value, sizeof(value)) == 0;
    }
    void SetIf(bool isWanted, int level, int option, int value) {
        if (isWanted) {
            Set(level, option, value);
        }
    }
    bool IsGood() const { return m_isGood; }

private:
    const int m_socket;
    bool m_isGood = true;
};

void SetV4(CSetting& setting, const CNxDatagramOptions& options, unsigned interface) {
    setting.SetIf(options.ttl != 0, IPPROTO_IP, IP_TTL, options.ttl);
    setting.SetIf(options.multicastTtl != 0, IPPROTO_IP, IP_MULTICAST_TTL, options.multicastTtl);
    setting.SetIf(!options.multicastLoop, IPPROTO_IP, IP_MULTICAST_LOOP, 0);
    if (interface != 0) {
        ip_mreqn request{};
        request.imr_ifindex = static_cast<int>(interface);
        setting.Set(IPPROTO_IP, IP_MULTICAST_IF, request);
    }
}

void SetV6(CSetting& setting, const CNxDatagramOptions& options, unsigned interface) {
    setting.SetIf(options.ttl != 0, IPPROTO_IPV6, IPV6_UNICAST_HOPS, options.ttl);
    setting.SetIf(options.multicastTtl != 0, IPPROTO_IPV6, IPV6_MULTICAST_HOPS,
                  options.multicastTtl);
    setting.SetIf(!options.multicastLoop, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 0);
    setting.SetIf(interface != 0, IPPROTO_IPV6, IPV6_MULTICAST_IF, static_cast<int>(interface));
}

bool SetUp(int socket, const CNxEndpoint& endpoint, const CNxDatagramOptions& options,
           unsigned interface) {
    CSetting setting(socket);
    const int family = endpoint.GetFamily();
    setting.SetIf(options.receiveBuffer != 0, SOL_SOCKET, SO_RCVBUF, options.receiveBuffer);
    setting.SetIf(options.sendBuffer != 0, SOL_SOCKET, SO_SNDBUF, options.sendBuffer);
    setting.SetIf(family != AF_UNIX, SOL_SOCKET, SO_RXQ_OVFL, 1);
    setting.SetIf(options.reusePort, SOL_SOCKET, SO_REUSEPORT, 1);
    setting.SetIf(options.reuseAddress, SOL_SOCKET, SO_REUSEADDR, 1);
    setting.SetIf(options.broadcast, SOL_SOCKET, SO_BROADCAST, 1);
    setting.SetIf(family == AF_INET6, IPPROTO_IPV6, IPV6_V6ONLY, endpoint.IsDual() ? 0 : 1);
    if (family == AF_INET || endpoint.IsDual()) {
        SetV4(setting, options, interface);
    }
    if (family == AF_INET6) {
        SetV6(setting, options, interface);
    }
    return setting.IsGood();
}

bool IsGroup(const CNxEndpoint& endpoint) {
    const auto* const address = endpoint.GetAddress();
    if (endpoint.GetFamily() == AF_INET) {
        return IN_MULTICAST(ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr));
    }
    return endpoint.GetFamily() == AF_INET6 &&
           IN6_IS_ADDR_MULTICAST(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
}

}  // namespace

// Buffers for what one call receives.
class CNxDatagram::CReceiver {
public:
    static constexpr size_t c_batch = 16;

    CReceiver(std::shared_ptr<const OnReceived> onReceived, size_t maxReceived)
        : m_onReceived(std::move(onReceived)),
          m_maxReceived(maxReceived),
          m_bytes(new char[c_batch * maxReceived]) {}

    // As recvmmsg(2).
    int Receive(int socket) {
        for (size_t i = 0; i < c_batch; ++i) {
            m_pieces[i] = {m_bytes.get() + i * m_maxReceived, m_maxReceived};
            msghdr& header = m_messages[i].msg_hdr;
            header = {};
            header.msg_name = &m_names[i];
            header.msg_namelen = sizeof(m_names[i]);
            header.msg_iov = &m_pieces[i];
            header.msg_iovlen = 1;
            header.msg_control = m_controls[i].bytes;
            header.msg_controllen = sizeof(m_controls[i].bytes);
        }
        return recvmmsg(socket, m_messages, c_batch, MSG_DONTWAIT, nullptr);
    }

    void HandOut(size_t index) const {
        const mmsghdr& message = m_messages[index];
        CNxEndpoint from;
        // A unix sender may have no name.
        static_cast<void>(from.SetAddress(reinterpret_cast<const sockaddr*>(&m_names[index]),
                                          message.msg_hdr.msg_namelen));
        const CNxReceivedDatagram received{from,
                                           {m_bytes.get() + index * m_maxReceived, message.msg_len},
                                           (message.msg_hdr.msg_flags & MSG_TRUNC) != 0};
        if (*m_onReceived) {
            CallOut("OnReceived", [&] { (*m_onReceived)(received); });
        }
    }

    // How many the system had dropped until then, modulo 2^32; it says so once there are some.
    bool FindDropped(size_t index, std::uint32_t& dropped) {
        msghdr& header = m_messages[index].msg_hdr;
        for (cmsghdr* at = CMSG_FIRSTHDR(&header); at != nullptr; at = CMSG_NXTHDR(&header, at)) {
            if (at->cmsg_level == SOL_SOCKET && at->cmsg_type == SO_RXQ_OVFL) {
                std::memcpy(&dropped, CMSG_DATA(at), sizeof(dropped));
                return true;
            }
        }
        return false;
    }

private:
    struct Control {
        alignas(cmsghdr) char bytes[CMSG_SPACE(sizeof(std::uint32_t))];
    };

    const std::shared_ptr<const OnReceived> m_onReceived;
    const size_t m_maxReceived;
    const std::unique_ptr<char[]> m_bytes;
    mmsghdr m_messages[c_batch];
    iovec m_pieces[c_batch];
    sockaddr_storage m_names[c_batch];
    Control m_controls[c_batch];
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
        !SetUp(GetHandle(), endpoint, options, interface) || !Bind(endpoint, options.unixMode)) {
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
        const int got = receiver->Receive(socket);
        const int error = errno;
        if (got > 0 && !HandOut(*receiver, static_cast<size_t>(got), isClosed)) {
            return false;
        }
        if (got == -1 && !MayReceiveAfter(error)) {
            break;
        }
        if (got > 0 && static_cast<size_t>(got) < CReceiver::c_batch) {
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
    if (receiver.FindDropped(count - 1, dropped)) {
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
    return ChangeMembership(group, interface, MCAST_JOIN_GROUP);
}

NxResult CNxDatagram::Leave(const CNxEndpoint& group, const std::string& interface) {
    return ChangeMembership(group, interface, MCAST_LEAVE_GROUP);
}

NxResult CNxDatagram::ChangeMembership(const CNxEndpoint& group, const std::string& interface,
                                       int option) const {
    if (GetHandle() == -1) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    group_req request{};
    if (!IsGroup(group) || !FindInterface(interface, request.gr_interface)) {
        return NX_ERROR_INVALID_ARG;
    }
    std::memcpy(&request.gr_group, group.GetAddress(), group.GetSize());
    const int level = group.GetFamily() == AF_INET ? IPPROTO_IP : IPPROTO_IPV6;
    const int changed = setsockopt(GetHandle(), level, option, &request, sizeof(request));
    return changed == 0 ? NX_OK : NX_ERROR_FAILURE;
}

CNxDatagramCounts CNxDatagram::GetCounts() const {
    CNxDatagramCounts counts = m_counts;
    counts.droppedSending += m_inbox->GetDropped();
    return counts;
}
