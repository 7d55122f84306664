#include <netinet/tcp.h>
#include <nx/foundation/CCallOut.h>
#include <nx/reactor/INxReactor.h>
#include <nx/stream/CConnectionImp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <new>
#include <system_error>
#include <utility>

namespace {

// TLS, when that is built.
std::unique_ptr<CStreamFilter> MakeFilter(const CNxConnectionOptions& options, std::string& error) {
    return options.tls->MakeFilter(options.tlsName, error);
}

std::string Within(const char* what, const CNxTimeValue& time) {
    char text[96];
    std::snprintf(text, sizeof(text), "%s %.6g s", what,
                  static_cast<double>(time.GetTotalInMsec()) / 1000);
    return text;
}

// What an idle one costs: with its place in the system's memory a multiple of 16 after 8.
static_assert(sizeof(CConnectionImp) <= 360);

}  // namespace

CConnectionImp::CConnectionImp(CStreamLoop& loop, CNxConnectedSocket socket,
                               INxConnectionSink& sink,
                               std::unique_ptr<INxConnectionSink> ownedSink, Options options)
    : CStreamMember(loop),
      m_options(std::move(options)),
      m_sink(&sink),
      m_attached(std::move(socket.attached)),
      m_createdAt(NowMs()),
      m_activeAt(m_createdAt),
      m_socket(std::move(socket.socket)),
      m_ownsSink(ownedSink.release() != nullptr) {}

CConnectionImp::~CConnectionImp() {
    assert(!m_isRegistered);
    LetGoOfSink();
}

NxResult CConnectionImp::Open() {
    try {
        StoreEndpoints();
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
    SetSocketOptions();
    const NxResult started = m_options->tls ? StartFilter() : NX_OK;
    const NxResult registered = started == NX_OK ? Register() : started;
    if (registered == NX_OK) {
        AddReference();
        GetLoop().Add(*this);
    }
    return registered;
}

// Where the system does not tell, they stay of no family.
void CConnectionImp::StoreEndpoints() {
    CNxEndpoint endpoint;
    if (endpoint.SetLocalOf(GetHandle()) == NX_OK) {
        m_local.Set(endpoint);
    }
    if (endpoint.SetPeerOf(GetHandle()) == NX_OK) {
        m_peer.Set(endpoint);
    }
}

// Without one of them a connection is slower, not wrong.
void CConnectionImp::SetSocketOptions() {
    const int on = 1;
    if (IsUnix()) {
        return;
    }
    if (m_options->noDelay) {
        setsockopt(GetHandle(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    }
    if (m_options->keepAlive) {
        setsockopt(GetHandle(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    }
}

NxResult CConnectionImp::StartFilter() {
    try {
        std::string error;
        m_filtered = std::make_unique<CFiltered>();
        m_filtered->filter = MakeFilter(*m_options, error);
        if (m_filtered->filter == nullptr) {
            return NX_ERROR_FAILURE;
        }
        CNxMessageChain toSocket;
        m_filtered->state = m_filtered->filter->Start(toSocket);
        m_output.Append(std::move(toSocket));
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
    CountUnsent();
    return m_filtered->state != CStreamFilter::EState::FAILED ? NX_OK : NX_ERROR_FAILURE;
}

// Where changes are reported it is for good: no message costs a change of the registration.
NxResult CConnectionImp::Register() {
    INxReactor& reactor = GetReactor();
    if (GetLoop().IsClosing()) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    const bool isState = GetLoop().ReportsStates();
    if (isState && m_socket.Enable(CNxIPCBase::NON_BLOCK) != 0) {
        return NX_ERROR_FAILURE;
    }
    const long mask = isState ? NX_MASK_WRITE : NX_MASK_READ | NX_MASK_WRITE;
    const NxResult result = reactor.RegisterHandler(this, mask);
    if (NxSucceeded(result)) {
        m_isRegistered = true;
        return NX_OK;
    }
    return reactor.NotifyHandler(this, 0) == NX_ERROR_NOT_INITIALIZED ? NX_ERROR_NOT_INITIALIZED
                                                                      : NX_ERROR_FAILURE;
}

int CConnectionImp::OnInput(int /*fd*/) {
    m_isReadable = true;
    // Descriptors that come through a unix socket make reads short.
    m_mayHaveEnded = IsUnix() || GetReactor().MayHaveEnded();
    Proceed();
    return 0;
}

int CConnectionImp::OnOutput(int /*fd*/) {
    const bool wasWritable = std::exchange(m_isWritable, true);
    // What was writable before has nothing waiting, or its turn comes.
    if (!wasWritable || m_state.load(std::memory_order_relaxed) != EState::OPEN) {
        Proceed();
    }
    return 0;
}

int CConnectionImp::OnClose(int /*fd*/, long /*mask*/) {
    const CStreamLoop::CEntry entry(GetLoop());
    m_isRegistered = false;
    const int error = GetReactor().GetCloseReason();
    if (error != 0) {
        Fail(error);
    } else {
        // Its end, and perhaps something before it, is still to be read.
        m_isReadable = m_isWritable = true;
        Proceed();
    }
    return 0;
}

void CConnectionImp::Proceed() {
    const CStreamLoop::CEntry entry(GetLoop());
    if (IsEnded() || std::exchange(m_isProceeding, true)) {
        return;
    }
    try {
        Advance();
    } catch (const std::bad_alloc&) {
        End(ENxClosed::OUT_OF_MEMORY);
    }
    m_isProceeding = false;
    m_mayHaveEnded = true;
}

void CConnectionImp::Advance() {
    ServeAsked();
    if (!m_filtered) {
        TellOpen();
    }
    Receive();
    Flush();
    EndSendingSide();
    if (GetState() == EState::LINGERING) {
        Discard();
    }
    Watch();
    AskForCall();
}

// The first end may find that another was asked for meanwhile.
void CConnectionImp::ServeAsked() {
    if (m_asked == EAsked::END_WHEN_SENT) {
        EndWhenSent();
    }
    if (m_asked == EAsked::DROP) {
        End(ENxClosed::LIMIT, EText::TOO_MUCH_UNSENT);
    } else if (m_asked == EAsked::END_NOW) {
        End(ENxClosed::BY_US);
    }
}

void CConnectionImp::TellOpen() {
    if (GetState() != EState::HANDSHAKING) {
        return;
    }
    SetState(EState::OPEN);
    CallSink("OnOpen", [this](INxConnectionSink& sink) { sink.OnOpen(*this); });
    if (m_stop == EStop::DUE) {
        TellStop();
    }
}

void CConnectionImp::TellStop() {
    if (m_stop == EStop::TOLD || GetState() >= EState::ENDING) {
        return;
    }
    if (GetState() == EState::HANDSHAKING) {
        m_stop = EStop::DUE;
        return;
    }
    m_stop = EStop::TOLD;
    CallSink("OnStop", [this](INxConnectionSink& sink) { sink.OnStop(*this); });
}

// A receive or send; `isReady` is what the socket was ready for.
void CConnectionImp::CallFailed(int error, bool& isReady) {
    if (error == ENOBUFS || error == ENOMEM) {
        // The system is short of buffers: no readiness will tell when that is over.
        m_isStarved = true;
    } else if (error == EAGAIN || error == EWOULDBLOCK) {
        isReady = false;
    } else if (error != EINTR) {
        Fail(error);
    }
}

void CConnectionImp::SetState(EState next) {
    assert(next > GetState());
    m_state.store(next, std::memory_order_release);
}

void CConnectionImp::CloseWhenSent() {
    if (!GetLoop().IsOnThread()) {
        // Refused when it is to end anyway.
        static_cast<void>(Leave({}, EAsked::END_WHEN_SENT));
        return;
    }
    EndWhenSent();
    if (!IsEnded()) {
        GetLoop().Enlist(*this);
    }
}

void CConnectionImp::EndWhenSent() {
    if (GetState() >= EState::ENDING) {
        return;
    }
    CloseInbox(EAsked::END_WHEN_SENT);
    m_isByPeer = m_isEndTold;
    m_sending = std::max(m_sending, ESending::ENDING);
    SetState(EState::ENDING);
}

void CConnectionImp::CloseNow() {
    if (!GetLoop().IsOnThread()) {
        static_cast<void>(Leave({}, EAsked::END_NOW));
        return;
    }
    const CStreamLoop::CEntry entry(GetLoop());
    End(ENxClosed::BY_US);
}

void CConnectionImp::Abandon() {
    if (IsEnded() && m_isSilent) {
        return;
    }
    const CStreamLoop::CEntry entry(GetLoop());
    m_isSilent = true;
    End(ENxClosed::BY_US);
}

void CConnectionImp::Fail(int error) {
    if (!IsEnded()) {
        m_error = error;
        End(ENxClosed::FAILED);
    }
}

void CConnectionImp::EndWithLoop() {
    End(ENxClosed::LOOP_ENDED);
}

// What the sink may be looking at stays until its calls have returned.
void CConnectionImp::End(ENxClosed kind, EText text) {
    if (IsEnded()) {
        return;
    }
    m_closed = kind;
    m_text = text;
    SetState(EState::CLOSED);
    GetLoop().Remove(*this);
    CloseInbox(EAsked::END_NOW);
    if (std::exchange(m_isRegistered, false)) {
        GetReactor().RemoveHandler(this, NX_MASK_ALL_EVENTS);
    }
    m_socket.Close();
    m_attached.reset();
    m_output.Clear();
    m_unsent.store(0, std::memory_order_relaxed);
}

void CConnectionImp::TellClosed() {
    if (std::exchange(m_isSilent, true)) {
        return;
    }
    CNxCloseReason reason{m_closed, m_error, {}};
    try {
        reason.text = Describe();
    } catch (const std::bad_alloc&) {
        // The kind says enough.
    }
    CallOut("OnClosed", [&] {
        try {
            m_sink->OnClosed(*this, reason);
        } catch (const std::bad_alloc&) {
            // It has ended already.
        }
    });
}

void CConnectionImp::Release() {
    m_received.Clear();
    m_filtered.reset();
    m_framing.reset();
    LetGoOfSink();
    ReleaseReference();
}

void CConnectionImp::LetGoOfSink() {
    if (!m_ownsSink) {
        static_cast<void>(m_sink.release());
    }
    m_sink.reset();
}

std::string CConnectionImp::Describe() const {
    switch (m_text) {
        case EText::NONE:
            return DescribeKind();
        case EText::TOO_MUCH_UNSENT:
            return "more waits to be sent than may wait";
        case EText::TOO_MUCH_UNREAD:
            return "more waits to be read than may wait";
        case EText::LONG_FRAME:
            return "a frame is longer than " + std::to_string(GetFraming().GetMaxSize()) + " bytes";
        case EText::CUT_HANDSHAKE:
            return "the peer ended during the TLS handshake";
        case EText::CUT_STREAM:
            return "the peer ended without close_notify";
    }
    return {};
}

std::string CConnectionImp::DescribeKind() const {
    switch (m_closed) {
        case ENxClosed::BY_US:
            return "closed by us";
        case ENxClosed::BY_PEER:
            return "closed by the peer";
        case ENxClosed::IDLE:
            return Within("nothing came or went for", m_options->idleTimeout);
        case ENxClosed::STALLED:
            return Within("the peer took nothing for", m_options->stallTimeout);
        case ENxClosed::HANDSHAKE:
            return Within("no TLS handshake within", m_options->handshakeTimeout);
        case ENxClosed::LINGERING:
            return Within("the peer did not end its side within", m_options->lingerTimeout);
        case ENxClosed::LIMIT:
            return "a limit was exceeded";
        case ENxClosed::OUT_OF_MEMORY:
            return "out of memory";
        case ENxClosed::FAILED:
            return std::system_category().message(m_error);
        case ENxClosed::TLS:
            return m_filtered->filter->GetError();
        case ENxClosed::LOOP_ENDED:
            return "the loop has ended";
    }
    return {};
}

// What reports states must be asked only for what is wanted now.
void CConnectionImp::Watch() {
    if (IsEnded() || !GetLoop().ReportsStates()) {
        return;
    }
    const bool wantsInput = WantsInput();
    const bool wantsRoom = !m_isWritable && !m_isStarved && !m_output.IsEmpty();
    if (wantsInput == m_watchesInput && wantsRoom == m_watchesRoom) {
        return;
    }
    m_watchesInput = wantsInput;
    m_watchesRoom = wantsRoom;
    const long wanted = (wantsInput ? NX_MASK_READ : 0) | (wantsRoom ? NX_MASK_WRITE : 0);
    if (wanted == 0) {
        m_isRegistered = false;
        GetReactor().RemoveHandler(this, NX_MASK_ALL_EVENTS);
        return;
    }
    m_isRegistered = NxSucceeded(GetReactor().RegisterHandler(this, wanted));
    if (!m_isRegistered) {
        Fail(ENOMEM);
    }
}

CNxTimeValue CConnectionImp::GetAge() const {
    CNxTimeValue age;
    age.SetByTotalMsec(NowMs() - m_createdAt);
    return age;
}

const CNxTlsInfo* CConnectionImp::GetTlsInfo() const {
    return m_filtered ? m_filtered->filter->GetInfo() : nullptr;
}

NxResult CConnectionImp::Make(CNxAutoPtr<CNxConnection>& out, INxReactor& reactor,
                              CNxConnectedSocket socket, INxConnectionSink& sink,
                              std::unique_ptr<INxConnectionSink> ownedSink,
                              const Options& options) {
    if (socket.socket.GetHandle() == -1 || options == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    CStreamLoop* const loop = CStreamLoop::Of(reactor);
    if (loop == nullptr) {
        return NX_ERROR_FAILURE;
    }
    const CNxAutoPtr<CConnectionImp> made(new (std::nothrow) CConnectionImp(
        *loop, std::move(socket), sink, std::move(ownedSink), options));
    const NxResult opened = made ? made->Open() : NX_ERROR_FAILURE;
    if (opened == NX_OK) {
        out = made.Get();
    }
    return opened;
}

NxResult CNxConnection::Create(CNxAutoPtr<CNxConnection>& out, INxReactor& reactor,
                               CNxConnectedSocket socket, INxConnectionSink& sink,
                               const Options& options) {
    return CConnectionImp::Make(out, reactor, std::move(socket), sink, nullptr, options);
}

NxResult CNxConnection::Create(CNxAutoPtr<CNxConnection>& out, INxReactor& reactor,
                               CNxConnectedSocket socket, std::unique_ptr<INxConnectionSink> sink,
                               const Options& options) {
    if (sink == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    INxConnectionSink& owned = *sink;
    return CConnectionImp::Make(out, reactor, std::move(socket), owned, std::move(sink), options);
}

size_t CNxConnection::GetCount(INxReactor& reactor) {
    const CStreamLoop* const loop = CStreamLoop::Find(reactor);
    return loop != nullptr ? loop->GetCount() : 0;
}

void CNxConnection::StopAll(INxReactor& reactor) {
    CStreamLoop* const loop = CStreamLoop::Find(reactor);
    if (loop != nullptr) {
        loop->StopAll();
    }
}

void CNxConnection::CloseAll(INxReactor& reactor) {
    CStreamLoop* const loop = CStreamLoop::Find(reactor);
    if (loop != nullptr) {
        loop->EndAll();
    }
}
