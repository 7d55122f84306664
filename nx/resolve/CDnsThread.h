// Inside the library only: the thread that looks names up.
#pragma once

#include <sys/stat.h>

#include <list>
#include <memory>
#include <unordered_map>

#include <nx/foundation/CNxTimeValue.h>
#include <nx/reactor/INxEventHandler.h>
#include <nx/resolve/CDnsChannel.h>
#include <nx/thread/CNxThreadReactor.h>

// Takes what there is to start, drives the channels from its reactor, and hands back what is
// complete. A channel goes by the settings and the resolv.conf that it was opened with: when they
// change, what is under way ends on the old one, and the next look-ups get a new one.
//
// All but Create, Wake and Stop belongs to the thread itself.
class CDnsThread final : public CNxThreadReactor,
                         private CDnsChannel::IUser,
                         private INxEventHandler {
public:
    // Where its work comes from and goes to; outlives its run. Any thread's, so without waiting.
    class IWork {
    public:
        // The next look-up to start, null when there is none.
        virtual CDnsLookup* TakeToStart() = 0;
        virtual bool HasToStart() = 0;
        // Returns a number that changes with the settings. May throw std::bad_alloc.
        virtual unsigned int GetSettings(CDnsSettings& settings) = 0;
        // Takes a complete look-up back.
        virtual void Publish(const CDnsLookup& lookup) = 0;
        // Tries again to tell those for whose event there was no memory. Whether any are left.
        virtual bool TellUntold() = 0;
        // Nothing is started any more.
        virtual void OnThreadEnd() = 0;

    protected:
        ~IWork() = default;
    };

    explicit CDnsThread(IWork& work);
    ~CDnsThread() override;

    // As CNxThreadReactor, with a reactor of its own; NX_ERROR_FAILURE also when there is no timer
    // to be had. May throw std::bad_alloc.
    [[nodiscard]] NxResult Create(int type, CNxThreadManager::TFlag flags) override;

    // There is something to start. Any thread, between Create and the end of the run. NX_OK; else
    // the thread does not look.
    [[nodiscard]] NxResult Wake();

    void OnThreadInit() override;
    void OnThreadRun() override;

private:
    class CSocket;

    // What a channel was opened with.
    struct CSource {
        unsigned int m_settings = 0;
        timespec m_changed{};
        ino_t m_inode = 0;
        size_t m_first = 0;

        bool operator==(const CSource& other) const;
    };

    [[nodiscard]] bool OnSocketOpened(CDnsChannel& channel, int fd) override;
    void OnSocketClosing(int fd) override;
    void OnLookupEnd(CDnsChannel& channel, CDnsLookup& lookup, int timeouts) override;

    // The timer.
    int GetHandle() const override { return m_timerFd; }
    int OnInput(int fd) override;

    NxResult OpenTimer();
    void SetTimer(long microseconds) const;
    void SetNextTimer();
    long GetStartDelay();
    void StartSome();
    void Start(CDnsLookup& lookup);
    CDnsChannel* GetChannel();
    CSource ReadSource(CDnsSettings& settings);
    void DropEndedChannels();

    IWork& m_work;
    int m_timerFd = -1;
    NxResult m_opened = NX_ERROR_NOT_INITIALIZED;
    int m_openedErrno = 0;
    std::unordered_map<int, std::unique_ptr<CSocket>> m_sockets;
    // The current one first.
    std::list<CDnsChannel> m_channels;
    CSource m_source;
    size_t m_lookups = 0;
    // When the current burst began, and how many it has started.
    CNxTimeValue m_burstBegin;
    int m_burst = 0;
    // The server that is asked first, and until when if that is not the first one.
    size_t m_first = 0;
    CNxTimeValue m_firstUntil;
};
