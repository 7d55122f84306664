#include <nx/foundation/high_descriptor.h>
#include <nx/reactor/CNxReactorEpoll.h>
#include <nx/resolve/CDnsThread.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <new>

namespace {

constexpr const char* c_resolvConf = "/etc/resolv.conf";
// What comes faster is lost on the way: the buffer of a socket holds less than 300 queries.
constexpr int c_mostOfBurst = 16;
constexpr long c_burstMicroseconds = 4000;
// A query has one of 65,536 numbers, a look-up two queries.
constexpr size_t c_mostLookups = 8192;
constexpr long c_otherServerFirstSeconds = 30;
constexpr long c_atOnce = 1;
constexpr long c_tellAgain = 100000;

}  // namespace

// One socket of a channel.
class CDnsThread::CSocket : public INxEventHandler {
public:
    CSocket(CDnsThread& thread, CDnsChannel& channel, int fd)
        : m_thread(thread), m_channel(channel), m_fd(fd) {}

    int GetHandle() const override { return m_fd; }
    int OnInput(int fd) override { return Process(fd, true); }
    int OnOutput(int fd) override { return Process(fd, false); }

    int OnClose(int fd, long /*mask*/) override {
        CDnsThread& thread = m_thread;
        m_channel.OnFailed(fd, thread.GetReactor()->GetCloseReason());
        thread.SetNextTimer();
        return 0;
    }

private:
    // The channel may close the socket meanwhile, and with it this handler is gone.
    int Process(int fd, bool isInput) {
        CDnsThread& thread = m_thread;
        m_channel.OnReady(fd, isInput);
        thread.SetNextTimer();
        return 0;
    }

    CDnsThread& m_thread;
    CDnsChannel& m_channel;
    const int m_fd;
};

bool CDnsThread::CSource::operator==(const CSource& other) const {
    return m_settings == other.m_settings && m_first == other.m_first && m_inode == other.m_inode &&
           m_changed.tv_sec == other.m_changed.tv_sec &&
           m_changed.tv_nsec == other.m_changed.tv_nsec;
}

CDnsThread::CDnsThread(IWork& work) : m_work(work) {
    SetName("nx-dns");
}

CDnsThread::~CDnsThread() {
    if (m_timerFd != -1) {
        close(m_timerFd);
    }
}

NxResult CDnsThread::Create(int type, CNxThreadManager::TFlag flags) {
    auto reactor = std::make_unique<CNxReactorEpoll>();
    NxResult result = Init(reactor.get());
    if (result != NX_OK) {
        return result;
    }
    static_cast<void>(reactor.release());  // the thread's from here on
    result = CNxThreadReactor::Create(type, flags);
    if (result == NX_OK && m_opened != NX_OK) {
        Join();
        result = m_opened;
        errno = m_openedErrno;
    }
    return result;
}

NxResult CDnsThread::Wake() {
    return GetReactor()->NotifyHandler(this, NX_MASK_READ);
}

void CDnsThread::OnThreadInit() {
    CNxThreadReactor::OnThreadInit();
    m_opened = OpenTimer();
    m_openedErrno = errno;
}

NxResult CDnsThread::OpenTimer() {
    // Not the reactor's own timers, which move with the system clock.
    m_timerFd = ToHighDescriptor(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    return m_timerFd == -1 ? NX_ERROR_FAILURE : GetReactor()->RegisterHandler(this, NX_MASK_READ);
}

void CDnsThread::OnThreadRun() {
    if (m_opened != NX_OK) {
        return;
    }
    CNxThreadReactor::OnThreadRun();
    m_channels.clear();
    assert(m_lookups == 0 && m_sockets.empty());
    m_work.OnThreadEnd();
}

// When it is time, and when there is something to start.
int CDnsThread::OnInput(int fd) {
    uint64_t expirations = 0;
    // Also when somebody has just woken it.
    static_cast<void>(read(fd, &expirations, sizeof(expirations)));
    for (CDnsChannel& channel : m_channels) {
        channel.OnTimeout();
    }
    StartSome();
    DropEndedChannels();
    SetNextTimer();
    return 0;
}

void CDnsThread::SetTimer(long microseconds) const {
    itimerspec when{};
    when.it_value.tv_sec = microseconds / 1000000;
    when.it_value.tv_nsec = microseconds % 1000000 * 1000;
    timerfd_settime(m_timerFd, 0, &when, nullptr);
}

void CDnsThread::SetNextTimer() {
    std::optional<long> next;
    const auto add = [&next](long microseconds) {
        next = next ? std::min(*next, microseconds) : microseconds;
    };
    if (m_lookups < c_mostLookups && m_work.HasToStart()) {
        add(GetStartDelay());
    }
    if (m_work.TellUntold()) {
        add(c_tellAgain);
    }
    for (const CDnsChannel& channel : m_channels) {
        if (const std::optional<long> left = channel.GetTimeout()) {
            add(*left);
        }
    }
    // Of 0 it would be disarmed.
    SetTimer(next ? std::max(*next, c_atOnce) : 0);
}

// In how many microseconds the next look-up may start.
long CDnsThread::GetStartDelay() {
    const CNxTimeValue now = CNxTimeValue::GetMonotonicTime();
    const CNxTimeValue burstEnd = m_burstBegin + CNxTimeValue(0, c_burstMicroseconds);
    if (burstEnd <= now) {
        m_burstBegin = now;
        m_burst = 0;
    }
    return m_burst < c_mostOfBurst ? 0 : (burstEnd - now).GetUsec();
}

void CDnsThread::StartSome() {
    while (m_lookups < c_mostLookups && GetStartDelay() == 0) {
        CDnsLookup* const lookup = m_work.TakeToStart();
        if (lookup == nullptr) {
            return;
        }
        ++m_burst;
        Start(*lookup);
    }
}

void CDnsThread::Start(CDnsLookup& lookup) {
    CDnsChannel* channel = nullptr;
    try {
        channel = GetChannel();
    } catch (const std::bad_alloc&) {
    }
    if (channel != nullptr) {
        ++m_lookups;
        channel->Start(lookup);
    } else {
        lookup.Complete(NX_ERROR_FAILURE, {}, 0);
        m_work.Publish(lookup);
    }
}

CDnsThread::CSource CDnsThread::ReadSource(CDnsSettings& settings) {
    if (m_first != 0 && CNxTimeValue::GetMonotonicTime() > m_firstUntil) {
        m_first = 0;
    }
    CSource source;
    source.m_settings = m_work.GetSettings(settings);
    source.m_first = m_first;
    struct stat file {};
    if (stat(c_resolvConf, &file) == 0) {
        source.m_changed = file.st_mtim;
        source.m_inode = file.st_ino;
    }
    return source;
}

// Null without memory.
CDnsChannel* CDnsThread::GetChannel() {
    CDnsSettings settings;
    CSource source = ReadSource(settings);
    if (source.m_settings != m_source.m_settings) {
        m_first = 0;
        source.m_first = 0;
    }
    if (!m_channels.empty() && source == m_source) {
        return &m_channels.front();
    }
    std::list<CDnsChannel> made;
    made.emplace_back(static_cast<CDnsChannel::IUser&>(*this));
    if (made.front().Open(settings, source.m_first) != NX_OK) {
        return nullptr;
    }
    m_channels.splice(m_channels.begin(), made);
    m_source = source;
    return &m_channels.front();
}

void CDnsThread::DropEndedChannels() {
    for (auto at = m_channels.begin(); at != m_channels.end();) {
        const bool isOld = at != m_channels.begin();
        at = isOld && at->CountLookups() == 0 ? m_channels.erase(at) : std::next(at);
    }
}

bool CDnsThread::OnSocketOpened(CDnsChannel& channel, int fd) {
    try {
        assert(m_sockets.count(fd) == 0);
        const auto at = m_sockets.emplace(fd, std::make_unique<CSocket>(*this, channel, fd)).first;
        // For output as well, because else it does not hear of a failure.
        const NxResult result =
            GetReactor()->RegisterHandler(at->second.get(), NX_MASK_READ | NX_MASK_WRITE);
        return NxSucceeded(result);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void CDnsThread::OnSocketClosing(int fd) {
    const auto at = m_sockets.find(fd);
    if (at != m_sockets.end()) {
        GetReactor()->RemoveHandler(at->second.get(), NX_MASK_ALL_EVENTS);
        m_sockets.erase(at);
    }
}

void CDnsThread::OnLookupEnd(CDnsChannel& channel, CDnsLookup& lookup, int timeouts) {
    assert(m_lookups > 0);
    --m_lookups;
    // Else it may be that the channel is being destroyed.
    const bool isLate = timeouts > 0 && lookup.GetRecord()->GetResult() == NX_OK;
    if (isLate && &channel == &m_channels.front() && m_source.m_first == m_first) {
        // One for each address family.
        const auto passedOver = static_cast<size_t>(timeouts + 1) / 2;
        m_first = (m_first + passedOver) % channel.CountServers();
        m_firstUntil = CNxTimeValue::GetMonotonicTime() + CNxTimeValue(c_otherServerFirstSeconds);
    }
    m_work.Publish(lookup);
}
