// A read-write ini file: load it, read and change values, save it. For the settings of NAME.cfg,
// whose syntax is another one, see CNxConfigInitFile; docs/guide.md has both side by side.
//
// What it DOES NOT KEEP from loading to saving:
// - comments, empty lines, and the order and letter case of sections and keys (all lower case);
// - the quotes around a value: where it needs some, the saved file has them;
// - a value that holds both kinds of quotes and begins with one, begins or ends with a blank, or
//   holds ';' or '#': it stands in the saved file as it is, and the next load cuts it.
//
// iniparser does the work, with its syntax: [section], key = value, comments from ';' or '#' on,
// values in quotes, a backslash at a line's end that joins the next, lines of at most 1022 bytes.
#pragma once

#include <nx/foundation/CNxString.h>
#include <nx/foundation/NxResult.h>

struct _dictionary_;  // NOLINT(bugprone-reserved-identifier): iniparser's own name for it

// What is loaded belongs to the process, not to the object: all objects share it, each remembers
// only its own path. Not locked; use it from one thread, or take turns.
class CConfigFile {
public:
    static CConfigFile* Instance() { return &g_configfile; }

    // Loads the file in place of what was loaded before. 0; -1 when the path is empty, the file
    // cannot be opened or is no regular file, has a line that is too long or is neither section,
    // entry nor comment (iniparser tells which on standard error). After -1 nothing is loaded. The
    // path is remembered for SaveConfig, also after a failure, unless it is empty.
    [[nodiscard]] int Open(const CNxString& path);

    // Frees what is loaded.
    void Close();

    // Each returns its default when nothing is loaded, or not that key.

    // Decimal, octal with 0 or hexadecimal with 0x in front; 0 for a value that is no number.
    [[nodiscard]] int GetIntParam(const CNxString& section, const CNxString& key, int defaultValue);
    // References ${NAME} to environment variables are resolved (ResolveStringEnv,
    // nx/foundation/CNxUtils.h), in the default too.
    [[nodiscard]] CNxString GetStringParam(const CNxString& section, const CNxString& key,
                                           CNxString defaultValue);
    // True for a value that begins with y, Y, t, T or 1, false for n, N, f, F or 0, otherwise the
    // default.
    [[nodiscard]] bool GetBoolParam(const CNxString& section, const CNxString& key,
                                    bool defaultValue);

    // Change what is loaded, and make the section when it is new. 0; -1 when nothing is loaded,
    // memory ran out, or the entry would not come back from a saved file or would spoil it:
    // - a section that begins or ends with white space, or holds ']' or a line end;
    // - a key that is empty, begins or ends with white space, begins with '[', '#' or ';', or holds
    //   '=' or a line end;
    // - a value that holds a line end or a zero byte, or that ends in a backslash and holds both
    //   kinds of quotes;
    // - names or a value that make a line of more than 1000 bytes.
    // An empty section stands for the keys above the first section. A section with a ':' ends there
    // in the saved file, and the rest is part of the key, which finds the same values.
    [[nodiscard]] int SetIntParam(const CNxString& section, const CNxString& key, int value);
    [[nodiscard]] int SetStringParam(const CNxString& section, const CNxString& key,
                                     const CNxString& value);
    // Stored as "yes" or "no".
    [[nodiscard]] int SetBoolParam(const CNxString& section, const CNxString& key, bool value);

    // Write what is loaded to the path of Open, or to another one, which is not remembered.
    // NX_OK. NX_ERROR_FAILURE when nothing is loaded or the path is empty, and, after the line
    // "SaveToOtherConfig: cannot open PATH" on standard error:
    // - when a loaded entry is one that SetStringParam refuses (the file is not touched);
    // - when the file cannot be opened, or memory ran out (the file is not touched);
    // - when not all of it could be written (disk full: its former content is LOST; save again).
    [[nodiscard]] NxResult SaveConfig();
    [[nodiscard]] NxResult SaveToOtherConfig(const CNxString& path);

private:
    static CConfigFile g_configfile;
    static _dictionary_* m_ini;

    CNxString m_path;
};
