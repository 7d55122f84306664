// The ini file: whatever was loaded, a value that the setter took comes back from the saved file.
// Run it with -close_fd_mask=2: iniparser's messages about bad lines are not findings.
#include <nx/config/CConfigFile.h>

#include <algorithm>

#include "Fuzz.h"

namespace {

// Not a value that cannot be quoted; a '$' is resolved.
bool IsKept(const CNxString& value) {
    const bool hasBoth = value.find('"') != CNxString::npos && value.find('\'') != CNxString::npos;
    return !hasBoth && value.find('$') == CNxString::npos;
}

void CheckRoundTrip(CConfigFile& config, const CNxString& section, const CNxString& key,
                    const CNxString& value) {
    const CFuzzFile file("");
    const CNxString path(file.Path());
    const bool isSet = config.SetStringParam(section, key, value) == 0;
    if (config.SaveToOtherConfig(path) == NX_OK) {
        Require(config.Open(path) == 0);
        Require(!isSet || !IsKept(value) || config.GetStringParam(section, key, "?") == value);
    }
}

}  // namespace

// The input's first line, split at two bytes of value 1, is section, key and value.
void Fuzz(std::string_view input) {
    const CNxString all(input.data(), input.size());
    const size_t line = std::min(all.find('\n'), all.length());
    const CFuzzFile file(input.substr(std::min(line + 1, input.size())));
    CConfigFile config;
    if (config.Open(file.Path().c_str()) != 0) {
        return;
    }
    const size_t first = std::min(all.find('\1'), line);
    const size_t second = std::min(all.find('\1', first + 1), line);
    const CNxString section = all.substr(0, first);
    const CNxString key = first < line ? all.substr(first + 1, second - first - 1) : "";
    const CNxString value = second < line ? all.substr(second + 1, line - second - 1) : "";
    static_cast<void>(config.GetIntParam(section, key, 1));
    static_cast<void>(config.GetBoolParam(section, key, true));
    static_cast<void>(config.GetStringParam(section, key, ""));
    CheckRoundTrip(config, section, key, value);
}
