// How a program reads its settings: the process's configuration file with defaults. The syntax is
// that of nx/config/init_file.h, NOT that of CConfigFile; docs/guide.md has them side by side.
#pragma once

#include <nx/foundation/CNxString.h>

// No state; every call reads the file anew. Any thread, any number of objects.
// Each getter returns its default when the key is missing or has no value; of a value the first
// 1023 bytes count.
class CNxConfigInitFile {
public:
    // The default also for a value that is no number. Wider numbers are truncated.
    [[nodiscard]] int GetIntParam(const CNxString& section, const CNxString& key, int defaultValue);
    [[nodiscard]] unsigned long GetDwordParam(const CNxString& section, const CNxString& key,
                                              unsigned long defaultValue);
    [[nodiscard]] unsigned short GetWordParam(const CNxString& section, const CNxString& key,
                                              unsigned short defaultValue);

    // References ${NAME} to environment variables are resolved (ResolveStringEnv,
    // nx/foundation/CNxUtils.h), in the default too.
    [[nodiscard]] CNxString GetStringParam(const CNxString& section, const CNxString& key,
                                           CNxString defaultValue);

    // Whether the value is "TRUE" in any case; the default comes back as true or false.
    [[nodiscard]] bool GetBoolParam(const CNxString& section, const CNxString& key,
                                    int defaultValue);
};
