#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/CNxTimeUtils.h>
#include <nx/trace/CNxT120TraceFile.h>
#include <nx/trace/CNxT120TraceFileMgr.h>

#include <pthread.h>

#include <new>
#include <utility>

namespace {

using CGuard = CNxMutexGuardT<CNxMutexThreadRecursive>;

constexpr unsigned long SHUTDOWN_MS = 1;

void OnBeforeFork() {
    CNxT120TraceFileMgr::Instance().BeforeFork();
}
void OnForkInParent() {
    CNxT120TraceFileMgr::Instance().AfterFork(false);
}
void OnForkInChild() {
    CNxT120TraceFileMgr::Instance().AfterFork(true);
}

CNxT120TraceFileMgr* MakeInstance() {
    // Without the memory for it a forked child may find files locked; all else works.
    static_cast<void>(pthread_atfork(&OnBeforeFork, &OnForkInParent, &OnForkInChild));
    return new CNxT120TraceFileMgr;
}

// Made before main, so it goes after all that the program registered for its exit.
struct CExitDrain {
    CExitDrain() = default;
    CExitDrain(const CExitDrain&) = delete;
    CExitDrain& operator=(const CExitDrain&) = delete;
    ~CExitDrain() { CNxT120TraceFileMgr::Instance().drain(); }
};
CExitDrain s_exitDrain;

}  // namespace

CNxT120TraceFileMgr& g_trace_mgr = CNxT120TraceFileMgr::Instance();

CNxT120TraceFileMgr& CNxT120TraceFileMgr::Instance() {
    static CNxT120TraceFileMgr* const s_instance = MakeInstance();
    return *s_instance;
}

CNxT120TraceFileMgr::CNxT120TraceFileMgr() = default;

CNxT120TraceFileMgr::~CNxT120TraceFileMgr() {
    cnx_sleep_ms(SHUTDOWN_MS);
}

void* CNxT120TraceFileMgr::open(const char* name, unsigned long maxSize, unsigned char shared,
                                unsigned char create) {
    const CCancelOff cancelOff;
    CGuard guard(m_mutex);
    CNxT120TraceFile* file = Find(name);
    if (file == nullptr) {
        auto made = std::make_unique<CNxT120TraceFile>(name, maxSize, shared, create);
        file = m_files.emplace_front(std::move(made)).get();
    }
    return file;
}

void* CNxT120TraceFileMgr::attach(const char* name, unsigned long maxSize) {
    const CCancelOff cancelOff;
    CGuard guard(m_mutex);
    CNxT120TraceFile* file = Find(name);
    if (file == nullptr) {
        auto made = std::make_unique<CNxT120TraceFile>(name, maxSize, 1, 0);
        file = m_files.emplace_front(std::move(made)).get();
        // One that cannot be opened now tries again.
        static_cast<void>(file->attach());
    }
    return file;
}

void CNxT120TraceFileMgr::close(void* file) {
    const CCancelOff cancelOff;
    CGuard guard(m_mutex);
    m_files.remove_if([file](const auto& other) { return other.get() == file; });
}

void CNxT120TraceFileMgr::write(void* file, const char* tag, const char* prefix, const char* text) {
    if (file != nullptr) {
        static_cast<CNxT120TraceFile*>(file)->write(tag, prefix, text);
    }
}

void CNxT120TraceFileMgr::refresh_settings(unsigned long maxSize, int linesPerFlush) {
    const CCancelOff cancelOff;
    CGuard guard(m_mutex);
    for (const auto& file : m_files) {
        file->refresh_settings(maxSize, linesPerFlush);
    }
}

void CNxT120TraceFileMgr::drain() {
    const CCancelOff cancelOff;
    CGuard guard(m_mutex);
    for (const auto& file : m_files) {
        file->drain();
    }
}

void CNxT120TraceFileMgr::BeforeFork() NX_NO_THREAD_SAFETY_ANALYSIS {
    // A lock that cannot be taken would not be in the way of the child either.
    static_cast<void>(m_mutex.Lock());
    CNxT120TraceFile::LockSharedFiles();
    for (const auto& file : m_files) {
        file->BeforeFork();
    }
}

void CNxT120TraceFileMgr::AfterFork(bool isChild) NX_NO_THREAD_SAFETY_ANALYSIS {
    for (const auto& file : m_files) {
        file->AfterFork(isChild);
    }
    CNxT120TraceFile::UnlockSharedFiles();
    if (isChild) {
        // The lock's owner is the parent's thread, which is not the child's to unlock.
        new (&m_mutex) CNxMutexThreadRecursive;
    } else {
        m_mutex.UnLock();
    }
}

CNxT120TraceFile* CNxT120TraceFileMgr::Find(const char* name) {
    for (const auto& file : m_files) {
        if (file->is_same_file(name)) {
            return file.get();
        }
    }
    return nullptr;
}

void* T120_Open_Trace_Dev(const char* name, unsigned long maxSize, unsigned char shared,
                          unsigned char create) {
    return CNxT120TraceFileMgr::Instance().open(name, maxSize, shared, create);
}

void* T120_Attach_Trace_Dev(const char* name, unsigned long maxSize) {
    return CNxT120TraceFileMgr::Instance().attach(name, maxSize);
}

void T120_Close_Trace_Dev(void* handle) {
    CNxT120TraceFileMgr::Instance().close(handle);
}

void T120_Write_Trace_Dev(void* handle, const char* tag, const char* prefix, const char* text) {
    CNxT120TraceFileMgr::Instance().write(handle, tag, prefix, text);
}

void T120_Refresh_Settings(unsigned long maxSize, int linesPerFlush) {
    CNxT120TraceFileMgr::Instance().refresh_settings(maxSize, linesPerFlush);
}
