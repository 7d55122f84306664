// Where the lines go that the library prints unasked.
//
//     CNxOwnLines::Send(CNxOwnLines::TO_STDERR);
//     CNxThreadManager::Instance()->InitMainThread(argc, argv);
//
// They are: the paths that trace_setting_init finds and the warning of GetBinHomePath, the progress
// of CNxSignalStop, an overflow of the reactor on signals (standard output); a handler that takes
// away another one's registration, a thread that cannot be started or does not end, a configuration
// that cannot be saved or is no ini file, a log or configuration that cannot be opened (standard
// error).
//
// NOT AMONG THEM, and never moved: what the program asks for - the lines of nx/trace/log.h, records
// that tracing prints besides - and the line on standard error that says why the library ends the
// process.
#pragma once

// Any thread may call any operation, at any time: it counts from the next line on. The first lines
// come with InitMainThread, or with the first use of tracing. A forked child goes on as its parent.
class CNxOwnLines {
public:
    enum ETarget {
        // Each where its header says. As at first.
        TO_STREAMS,
        TO_STDERR,
        // Each a record of level 21 (Info), so none is seen unless the configuration has Enable and
        // a file, or stdout, for them. The first 4,095 bytes of those that come before the trace
        // engine is made wait for it; InitMainThread makes it. That a log cannot be opened goes to
        // standard error.
        TO_TRACE,
        NOWHERE
    };

    static void Send(ETarget target);
    static ETarget GetTarget();
};
