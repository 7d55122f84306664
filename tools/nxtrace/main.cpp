// nxtrace: shows the trace files of a process, oldest record first, and follows them.
#include <getopt.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>

#include "CTraceViewer.h"

namespace {

enum EExit { EXIT_GOOD = 0, EXIT_UNREADABLE = 1, EXIT_USAGE = 2 };

constexpr char HELP[] =
    R"(Usage: nxtrace [OPTION]... FILE...
       nxtrace [OPTION]... --dir DIR [--process NAME]
Show the records of trace files, oldest first, several files merged by time.

Which files:
      --dir DIR         all trace files in DIR (default with --process: .)
      --process NAME    only those of the process NAME
Which records:
  -n, --lines N         the last N
      --since TIME      from TIME on:  09:30[:15[.250]] (today),
      --until TIME      up to TIME:    2026-11-21 [09:30...],
                        11/21/2026 [09:30...], or 10m (s, m, h, d ago)
      --level LIST      of these levels, e.g. error,warning
      --pid LIST        of these processes
      --tid LIST        of these threads
      --grep REGEX      with REGEX (POSIX extended) in "Level:text"
How:
  -f, --follow          wait for more, also in the files that come next
      --json            one JSON object a line
      --stat            only count, per minute and level
  -h, --help            show this text
      --version         show the version

A warning, error or fatal record that is in the info file too is shown once.
Exit status: 0, 1 when a file could not be read, 2 for a wrong option.
)";

enum EOption {
    OPTION_SINCE = 256,
    OPTION_UNTIL,
    OPTION_LEVEL,
    OPTION_PID,
    OPTION_TID,
    OPTION_GREP,
    OPTION_DIR,
    OPTION_PROCESS,
    OPTION_JSON,
    OPTION_STAT,
    OPTION_VERSION,
};

constexpr char STAT_ALONE[] = "--stat counts what is there: not with --follow, --json or --lines";

constexpr option OPTIONS[] = {
    {"follow", no_argument, nullptr, 'f'},
    {"lines", required_argument, nullptr, 'n'},
    {"since", required_argument, nullptr, OPTION_SINCE},
    {"until", required_argument, nullptr, OPTION_UNTIL},
    {"level", required_argument, nullptr, OPTION_LEVEL},
    {"pid", required_argument, nullptr, OPTION_PID},
    {"tid", required_argument, nullptr, OPTION_TID},
    {"grep", required_argument, nullptr, OPTION_GREP},
    {"dir", required_argument, nullptr, OPTION_DIR},
    {"process", required_argument, nullptr, OPTION_PROCESS},
    {"json", no_argument, nullptr, OPTION_JSON},
    {"stat", no_argument, nullptr, OPTION_STAT},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, OPTION_VERSION},
    {nullptr, 0, nullptr, 0},
};

enum class EShow { RECORDS, JSON, STAT };

struct CCommand {
    CTraceFilter m_filter;
    std::string m_folder;
    std::string m_process;
    std::optional<size_t> m_count;
    EShow m_show = EShow::RECORDS;
    bool m_isFollow = false;
};

[[noreturn]] void Refuse(const std::string& problem) {
    std::fprintf(stderr, "nxtrace: %s\nTry 'nxtrace --help'.\n", problem.c_str());
    std::exit(EXIT_USAGE);
}

[[noreturn]] void Show(const char* text) {
    std::fputs(text, stdout);
    std::exit(EXIT_GOOD);
}

size_t ParseCount(const char* text) {
    char* end = nullptr;
    const long count = std::strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || count < 0) {
        Refuse(std::string("not a number of records: ") + text);
    }
    return static_cast<size_t>(count);
}

void Apply(int which, const std::string& argument, CCommand& command) {
    using Setter = std::string (CTraceFilter::*)(const std::string&);
    const Setter setter = which == OPTION_SINCE   ? &CTraceFilter::SetSince
                          : which == OPTION_UNTIL ? &CTraceFilter::SetUntil
                          : which == OPTION_LEVEL ? &CTraceFilter::SetLevels
                          : which == OPTION_PID   ? &CTraceFilter::SetPids
                          : which == OPTION_TID   ? &CTraceFilter::SetTids
                                                  : &CTraceFilter::SetPattern;
    const std::string problem = (command.m_filter.*setter)(argument);
    if (!problem.empty()) {
        Refuse(problem);
    }
}

void Choose(EShow show, CCommand& command) {
    if (command.m_show != EShow::RECORDS && command.m_show != show) {
        Refuse(STAT_ALONE);
    }
    command.m_show = show;
}

void ParseOptions(int argc, char** argv, CCommand& command) {
    for (int which = 0; (which = getopt_long(argc, argv, "fhn:", OPTIONS, nullptr)) != -1;) {
        switch (which) {
            case 'f':
                command.m_isFollow = true;
                break;
            case 'n':
                command.m_count = ParseCount(optarg);
                break;
            case 'h':
                Show(HELP);
            case OPTION_VERSION:
                Show("nxtrace " NXTRACE_VERSION "\n");
            case OPTION_DIR:
                command.m_folder = optarg;
                break;
            case OPTION_PROCESS:
                command.m_process = optarg;
                break;
            case OPTION_JSON:
                Choose(EShow::JSON, command);
                break;
            case OPTION_STAT:
                Choose(EShow::STAT, command);
                break;
            case '?':
                std::fputs("Try 'nxtrace --help'.\n", stderr);
                std::exit(EXIT_USAGE);
            default:
                Apply(which, optarg, command);
        }
    }
    if (command.m_show == EShow::STAT && (command.m_isFollow || command.m_count)) {
        Refuse(STAT_ALONE);
    }
    if (optind == argc && command.m_folder.empty() && command.m_process.empty()) {
        Refuse("no file: give FILE..., or --dir DIR");
    }
}

EOutput ChooseOutput(EShow show) {
    const char* const noColour = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    if (show == EShow::JSON) {
        return EOutput::JSON;
    }
    if (isatty(STDOUT_FILENO) == 0) {
        return EOutput::PLAIN;
    }
    const bool isColoured = (noColour == nullptr || *noColour == '\0') && terminal != nullptr &&
                            std::strcmp(terminal, "dumb") != 0;
    return isColoured ? EOutput::TERMINAL : EOutput::TERMINAL_WITHOUT_COLOUR;
}

void Run(const CCommand& command, CTraceViewer& viewer) {
    if (command.m_show == EShow::STAT) {
        viewer.PrintStat();
    } else if (command.m_count) {
        viewer.PrintLast(*command.m_count);
    } else {
        viewer.PrintAll();
    }
    if (command.m_isFollow) {
        viewer.Follow();
    }
}

}  // namespace

int main(int argc, char** argv) {
    CCommand command;
    ParseOptions(argc, argv, command);
    CTraceViewer viewer(command.m_filter, ChooseOutput(command.m_show));
    for (int i = optind; i < argc; ++i) {
        viewer.AddFile(argv[i]);
    }
    if (!command.m_folder.empty() || !command.m_process.empty()) {
        viewer.AddFolder(command.m_folder.empty() ? "." : command.m_folder, command.m_process);
    }
    if (!command.m_isFollow && viewer.IsEmpty()) {
        std::fprintf(stderr, "nxtrace: no trace files of %s in %s\n",
                     command.m_process.empty() ? "any process" : command.m_process.c_str(),
                     command.m_folder.empty() ? "." : command.m_folder.c_str());
        return EXIT_UNREADABLE;
    }
    try {
        Run(command, viewer);
    } catch (const std::bad_alloc&) {
        std::fputs("nxtrace: a file is too large for the memory\n", stderr);
        return EXIT_UNREADABLE;
    }
    const bool isWritten = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (!isWritten) {
        std::perror("nxtrace: standard output");
    }
    return viewer.HasFailed() || !isWritten ? EXIT_UNREADABLE : EXIT_GOOD;
}
