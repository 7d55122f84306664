// The open trace files of the process, by name, and the functions that reach them directly.
#pragma once

#include <nx/foundation/CNxMutexThread.h>

#include <forward_list>
#include <memory>

class CNxT120TraceFile;

// Owns the files it opens. Any thread may call any operation; who closes a file sees to it that
// nobody writes to it any more.
class CNxT120TraceFileMgr {
public:
    CNxT120TraceFileMgr();
    // Waits a millisecond for writers that are about to finish, then flushes and closes the files.
    ~CNxT120TraceFileMgr();

    CNxT120TraceFileMgr(const CNxT120TraceFileMgr&) = delete;
    CNxT120TraceFileMgr& operator=(const CNxT120TraceFileMgr&) = delete;

    // The process's own. It is never destroyed, so that threads may trace until the process is
    // gone: when it exits, the buffers are flushed and later records are written at once.
    static CNxT120TraceFileMgr& Instance();

    // The file of exactly this name if it is open here - as it is, the other arguments do not
    // count - or else a new one (CNxT120TraceFile's constructor). Null makes a new file without a
    // name, which drops what is written to it. Never null, also when the file cannot be opened.
    [[nodiscard]] void* open(const char* name, unsigned long maxSize, unsigned char shared,
                             unsigned char create);

    // The same for a shared file that keeps what is in it (CNxT120TraceFile::attach).
    [[nodiscard]] void* attach(const char* name, unsigned long maxSize);

    // Flushes, closes and destroys the file. Nothing happens when it is not open here.
    void close(void* file);

    // CNxT120TraceFile::write; nothing for a null file.
    void write(void* file, const char* tag, const char* prefix, const char* text);

    // CNxT120TraceFile::refresh_settings of every file.
    void refresh_settings(unsigned long maxSize, int linesPerFlush);

    // CNxT120TraceFile::drain of every file.
    void drain();

    // Around a fork(2): holds all locks of the files meanwhile, so that the child can use them. A
    // child should not write to private files of its parent; the trace engine opens its own.
    void BeforeFork();
    void AfterFork(bool isChild);

private:
    [[nodiscard]] CNxT120TraceFile* Find(const char* name);

    CNxMutexThreadRecursive m_mutex;
    // Newest first.
    std::forward_list<std::unique_ptr<CNxT120TraceFile>> m_files;
};

// CNxT120TraceFileMgr::Instance(), for use after the start of main.
extern CNxT120TraceFileMgr& g_trace_mgr;

// The operations of g_trace_mgr as functions; a handle is what open or attach returned.
[[nodiscard]] void* T120_Open_Trace_Dev(const char* name, unsigned long maxSize,
                                        unsigned char shared, unsigned char create);
[[nodiscard]] void* T120_Attach_Trace_Dev(const char* name, unsigned long maxSize);
void T120_Close_Trace_Dev(void* handle);
void T120_Write_Trace_Dev(void* handle, const char* tag, const char* prefix, const char* text);
void T120_Refresh_Settings(unsigned long maxSize, int linesPerFlush);
