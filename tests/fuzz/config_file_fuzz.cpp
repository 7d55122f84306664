// The ini file: whatever was loaded, a value that the setter took comes back from the saved file.
// Run it with -close_fd_mask=2: iniparser's messages about bad lines are not findings.
#include <nx/config/CConfigFile.h>

#include "Fuzz.h"

namespace {

// Not a value that cannot be quoted; a '$' is resolved.
bool IsKept(const CNxString& value) {
    const bool hasBoth = value.find('"') != CNxString::npos && value.find('\'') != CNxString::npos;
    return !hasBoth && value.find('$') == CNxString::npos;
}

}  // namespace

// The input's first line, split at two bytes of value 1, is section, key and value.
void Fuzz(std::string_view input) {
    CFuzzBytes content{input};
    CFuzzBytes line{content.TakeUntil('\n')};
    const CFuzzFile file(content.m_left);
    const CNxString path(file.Path());
    CConfigFile config;
    if (config.Open(path) != 0) {
        return;
    }
    const auto takeWord = [&line] {
        const std::string_view word = line.TakeUntil('\1');
        return CNxString(word.data(), word.size());
    };
    const CNxString section = takeWord();
    const CNxString key = takeWord();
    const CNxString value = takeWord();
    static_cast<void>(config.GetIntParam(section, key, 1));
    static_cast<void>(config.GetBoolParam(section, key, true));
    const bool isSet = config.SetStringParam(section, key, value) == 0;
    if (config.SaveToOtherConfig(path) == NX_OK) {
        Require(config.Open(path) == 0);
        const CNxString kept = config.GetStringParam(section, key, "?");
        Require(!isSet || !IsKept(value) || kept == value);
    }
}
