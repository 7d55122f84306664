// Environment variables as a value: a copy of the process's own, or what a new process shall get.
//
// The environment of the running process is read, never changed: that cannot be done safely while
// other threads run (setenv(3)).
#pragma once

#include <vector>

#include <nx/foundation/CNxString.h>
#include <nx/foundation/NxResult.h>

// Plain and ordered as set; one object belongs to one thread at a time. Empty at first. Operations
// throw std::bad_alloc when there is no memory.
class CNxEnvironment {
public:
    // A copy of the environment of this process. Any number of threads may take one; none may call
    // setenv(3) meanwhile, the rule of VOS_GetEnv too. Entries without '=' are left out.
    static CNxEnvironment OfThisProcess();

    // NX_OK with the value, which may be empty; NX_ERROR_NOT_FOUND, with `value` unchanged.
    [[nodiscard]] NxResult Get(const CNxString& name, CNxString& value) const;

    // Adds the variable or replaces its value. NX_OK, or NX_ERROR_INVALID_ARG for a name that is
    // empty or contains '=', and for a zero byte in either.
    [[nodiscard]] NxResult Set(const CNxString& name, const CNxString& value);

    // Nothing happens when it is not there.
    void Unset(const CNxString& name);

    // The folders in which the loader of a new process looks for shared libraries before it takes
    // the system's: LD_LIBRARY_PATH (ld.so(8)). An empty one, which means the current folder, is
    // "".
    std::vector<CNxString> GetLibraryPath() const;

    // Puts a folder in front of them, from wherever it may have been. This process loads nothing
    // from it: its loader read the variable when it started. NX_OK, or NX_ERROR_INVALID_ARG for an
    // empty folder and one with ':', ';' or a zero byte.
    [[nodiscard]] NxResult AddLibraryPath(const CNxString& folder);

    // "NAME=value" each.
    const std::vector<CNxString>& GetEntries() const { return m_entries; }

private:
    std::vector<CNxString>::const_iterator Find(const CNxString& name) const;

    std::vector<CNxString> m_entries;
};
