// The process-wide resolver of host names: looks them up without blocking anybody, and remembers
// what it has found.
//
//     void Client::Start() {
//         CNxDnsRecord* found = nullptr;
//         const NxResult asked =
//             CNxDnsManager::Instance()->AsyncResolve(found, "db.example.org", this, 0, nullptr);
//         if (asked == NX_OK) {
//             Connect(*CNxAutoPtr<CNxDnsRecord>::Adopt(found));
//         } else if (asked != NX_ERROR_WOULD_BLOCK) {
//             GiveUp(asked);
//         }
//     }
//     void Client::OnObserve(const char* /*topic*/, void* data) {   // on the thread of Start
//         Connect(*static_cast<const CNxDnsRecord*>(data));         // or GetResult() says why not
//     }
//     Client::~Client() { CNxDnsManager::Instance()->CancelResolve(this); }
#pragma once

#include <nx/foundation/CNxAutoPtr.h>
#include <nx/foundation/CNxSingleton.h>
#include <nx/foundation/CNxString.h>
#include <nx/foundation/NxResult.h>
#include <nx/resolve/CNxDnsRecord.h>

class CDnsManagerImp;
class CNxThread;
class CNxTimeValue;
class INxObserver;

// The type of the thread that looks names up. It is started by the first name that has to be, so
// not before InitMainThread, and stopped with the others (CNxThreadManager::StopAllThreads, exit).
// Once stopped it stays so: what is remembered and what is in figures is still answered.
inline constexpr int NX_THREAD_RESOLVER = 6;

// Lives until the tear-down of the library. Any thread may call any operation.
//
// Names are answered by /etc/hosts and the name servers of resolv.conf(5), in the order that
// nsswitch.conf(5) says and with the search list of resolv.conf, which is read anew when it has
// changed. Both IPv4 and IPv6 addresses are asked for. An answer that was cut off is asked for
// again over TCP, of each server once and for as long as the first time-out.
//
// A look-up waits for no other. The time-outs begin with SetTimeout's and double with every round
// through the name servers; an answer that comes after its time-out is taken. Where only another
// than the first server has answered, that one is asked first for the next 30 s, so a dead server
// costs one time-out in that time. Up to 8,192 names are looked up at a time, others wait for
// these; at most 4,000 are started in a second.
//
// A forked child remembers what its parent did, and looks names up with a thread of its own. Who
// asked before the fork is told in the parent alone.
class CNxDnsManager {
public:
    // Made by the first call; never null.
    static CNxDnsManager* Instance();

    ~CNxDnsManager();
    CNxDnsManager(const CNxDnsManager&) = delete;
    CNxDnsManager& operator=(const CNxDnsManager&) = delete;

    // The record of a host name, from memory or by a look-up that is started, or joined if one of
    // that name is under way. Upper and lower case are the same. An address in figures, with or
    // without a scope (CNxInetAddr::SetNumeric), is its own answer.
    // `allowExpired`: other than 0, a record that has expired less than an hour ago will do; it is
    // returned, and a new one looked up for those who ask next.
    // `observer` (may be null; not owned) is told when it has to wait, that is exactly when the
    // result is NX_ERROR_WOULD_BLOCK, and then once: topic "DnsManager", `data` the CNxDnsRecord,
    // failed or not, for the length of the call; whoever keeps it takes a reference. It is told by
    // an event, on `thread` or, if that is null, on the calling thread, which must be registered
    // and have an event queue. IF THAT THREAD ENDS FIRST, IT IS NOT TOLD. Before the observer or
    // the thread object is destroyed call CancelResolve.
    // NX_OK: `record` is what was found, with a reference that the caller releases. With any other
    // result it is null:
    // NX_ERROR_WOULD_BLOCK while it is looked up;
    // NX_ERROR_NOT_AVAILABLE, NX_ERROR_TIMEOUT or NX_ERROR_FAILURE when a look-up of the last 5 s
    // has failed (CNxDnsRecord::GetResult);
    // NX_ERROR_NOT_AVAILABLE for what is no host name: letters, digits, '-' and '_', in labels of
    // 1 to 63 with dots between them, 253 characters in all (RFC 1035 section 2.3.4; a dot may end
    // it). International names are given in their ASCII form (xn--...);
    // NX_ERROR_NULL_POINTER when there is an observer, but no queue to tell it through;
    // NX_ERROR_NOT_INITIALIZED when the resolver thread was stopped;
    // NX_ERROR_FAILURE without memory, when the thread cannot be started (its type is taken), and
    // when 65,536 names wait.
    [[nodiscard]] NxResult AsyncResolve(CNxDnsRecord*& record, const CNxString& host,
                                        INxObserver* observer, int allowExpired, CNxThread* thread);

    // Forgets all that the observer waits for. On the thread where it is told, no call comes any
    // more once this returns; on another one a call that has begun is not waited for. NX_OK, or
    // NX_ERROR_NOT_FOUND when it waits for nothing.
    NxResult CancelResolve(INxObserver* observer);

    // Looks the name up, valid or not; what is known is good until then, and a record that is still
    // valid is not replaced by a failure. NX_ERROR_WOULD_BLOCK, NX_OK for an address in figures, or
    // why it cannot be looked up, as AsyncResolve.
    NxResult RefreshHost(const CNxString& host);

    // Asks these name servers instead of those of resolv.conf: addresses in figures with commas
    // between them, each with or without a port, "10.0.0.1,127.0.0.1:5353,[::1]:53"; "" goes back
    // to resolv.conf. Counts for look-ups that start later. NX_OK; NX_ERROR_INVALID_ARG, with
    // nothing changed, for other texts and addresses with a scope.
    [[nodiscard]] NxResult SetServers(const CNxString& servers);

    // How long to wait for the first answer, from 1 ms to a minute, and how many rounds to make
    // through the name servers, from 1 to 10; 500 ms and 4 unless set: with one server a name that
    // nobody answers fails after 7.5 s. Counts for look-ups that start later. NX_OK, or
    // NX_ERROR_INVALID_ARG with nothing changed.
    [[nodiscard]] NxResult SetTimeout(const CNxTimeValue& timeout, int tries);

    // How many records are remembered, 4,096 unless set; the least recently used go first.
    void SetCacheSize(size_t records);

private:
    friend class CNxSingletonT<CNxDnsManager>;

    CNxDnsManager();

    const CNxAutoPtr<CDnsManagerImp> m_imp;
};
