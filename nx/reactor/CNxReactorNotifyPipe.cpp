#include <nx/net/CNxIPCBase.h>
#include <nx/reactor/CNxReactorBase.h>
#include <nx/reactor/CNxReactorNotifyPipe.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <initializer_list>

namespace {

constexpr unsigned long c_pipeSize = 65535;

struct CRecord {
    std::int32_t m_fd;
    std::int32_t m_padding;
    std::int64_t m_mask;
};
static_assert(sizeof(CRecord) == 16, "the record is written and read as it lies in memory");

}  // namespace

CNxReactorNotifyPipe::~CNxReactorNotifyPipe() {
    Close();
}

NxResult CNxReactorNotifyPipe::Open(CNxReactorBase* reactor) {
    if (reactor == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    m_pReactor = reactor;
    NxResult result = OpenPipe();
    if (result == NX_OK) {
        result = reactor->RegisterHandler(this, NX_MASK_READ);
    }
    if (result != NX_OK) {
        Close();
    }
    return result;
}

NxResult CNxReactorNotifyPipe::Close() {
    if (m_pReactor != nullptr) {
        m_pReactor->RemoveHandler(this, NX_MASK_ALL_EVENTS);
        m_pReactor = nullptr;
    }
    return ClosePipe();
}

NxResult CNxReactorNotifyPipe::OpenPipe() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    m_records.store(0);
    m_eventsOwed.store(false);
    const NxResult opened = m_PipeNotify.Open(c_pipeSize);
    if (opened != NX_OK) {
        return opened;
    }
    for (const int handle : {m_PipeNotify.GetReadHandle(), m_PipeNotify.GetWriteHandle()}) {
        if (CNxIPCBase(handle).Enable(CNxIPCBase::NON_BLOCK) != 0) {
            return NX_ERROR_FAILURE;
        }
    }
    return NX_OK;
}

NxResult CNxReactorNotifyPipe::ClosePipe() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    return m_PipeNotify.Close();
}

NxResult CNxReactorNotifyPipe::Notify(INxEventHandler* handler, long mask) {
    const CRecord record{handler != nullptr ? handler->GetHandle() : -1, 0, mask};
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (m_PipeNotify.GetWriteHandle() == -1) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    bool written = Write(&record, sizeof(record));
    if (!written && handler == nullptr) {
        m_eventsOwed.store(true);
        // The pipe may have been emptied before the mark was there to be seen.
        written = Write(&record, sizeof(record));
    }
    return written ? NX_OK : NX_ERROR_UNEXPECTED;
}

bool CNxReactorNotifyPipe::Write(const void* record, size_t size) {
    m_records.fetch_add(1);
    ssize_t sent = 0;
    do {
        sent = send(m_PipeNotify.GetWriteHandle(), record, size, MSG_NOSIGNAL);
    } while (sent == -1 && errno == EINTR);
    if (sent == static_cast<ssize_t>(size)) {
        return true;
    }
    m_records.fetch_sub(1);
    return false;
}

int CNxReactorNotifyPipe::GetHandle() const {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    return m_PipeNotify.GetReadHandle();
}

int CNxReactorNotifyPipe::OnInput(int fd) {
    CRecord record{};
    if (recv(fd, &record, sizeof(record), 0) != static_cast<ssize_t>(sizeof(record))) {
        return 0;
    }
    // Also a forked child's, that is not counted here: no reason for its parent to end.
    m_records.fetch_sub(1);
    if (record.m_fd != fd && m_pReactor != nullptr) {
        m_pReactor->ProcessHandleEvent(record.m_fd, record.m_mask, 0, 1, 0);
    }
    if (m_eventsOwed.load(std::memory_order_relaxed) && m_eventsOwed.exchange(false) &&
        m_pReactor != nullptr) {
        m_pReactor->ProcessHandleEvent(-1, NX_MASK_EVENT_QUEUE, 0, 1, 0);
    }
    return 0;
}
