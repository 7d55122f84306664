#include <fcntl.h>
#include <iniparser/iniparser.h>
#include <nx/config/CConfigFile.h>
#include <nx/foundation/CNxUtils.h>
#include <nx/foundation/has_zero_byte.h>
#include <nx/foundation/high_descriptor.h>
#include <nx/foundation/own_lines.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

CConfigFile CConfigFile::g_configfile;
_dictionary_* CConfigFile::m_ini = nullptr;

namespace {

constexpr char WHITE_SPACE[] = " \t\r\n\v\f";
// iniparser reads lines of 1022 bytes, and writes section names into a buffer of 1025.
constexpr size_t MAX_LINE = 1000;
// It pads the keys of a saved file to this width and puts " = " after it.
constexpr size_t KEY_WIDTH = 30;
constexpr size_t SEPARATOR = 3;

CNxString EntryName(const CNxString& section, const CNxString& key) {
    return section + ":" + key;
}

// A section name with a ':' is a key without a value to iniparser, and its own getters crash on it.
bool HasValue(const dictionary* ini, const CNxString& name) {
    return iniparser_getstring(ini, name.c_str(), nullptr) != nullptr;
}

bool HoldsAny(const CNxString& text, const char* characters) {
    return text.find_first_of(characters) != CNxString::npos || HasZeroByte(text);
}

bool HasBlankEnd(const CNxString& text) {
    return !text.empty() && (std::strchr(WHITE_SPACE, text.front()) != nullptr ||
                             std::strchr(WHITE_SPACE, text.back()) != nullptr);
}

bool IsGoodSection(const CNxString& section) {
    return !HoldsAny(section, "]\r\n") && !HasBlankEnd(section);
}

bool IsGoodKey(const CNxString& key) {
    return !key.empty() && !HoldsAny(key, "=\r\n") && !HasBlankEnd(key) &&
           std::strchr("[#;", key.front()) == nullptr;
}

// What has to stand in a file so that iniparser reads the value: in quotes when it would be cut.
// There is no way to write a value that needs them and holds both kinds.
CNxString ToFileText(const CNxString& value) {
    const bool isPlain =
        value.empty() || (value.find_first_of(";#") == CNxString::npos && !HasBlankEnd(value) &&
                          std::strchr("\"'", value.front()) == nullptr && value.back() != '\\');
    const char* const quote = value.find('"') == CNxString::npos ? "\"" : "'";
    const bool cannotQuote = value.find(*quote) != CNxString::npos;
    return isPlain || cannotQuote ? value : quote + value + quote;
}

bool IsGoodValue(const CNxString& value) {
    // iniparser looks for the joining backslash in front of any white space at the end.
    const CNxString text = ToFileText(value);
    const size_t last = text.find_last_not_of(WHITE_SPACE);
    return !HoldsAny(text, "\r\n") && (last == CNxString::npos || text[last] != '\\');
}

// Whether the entry stays one in a saved file. There, the section ends at the first ':'.
bool SurvivesSaving(const CNxString& name, const CNxString& value) {
    const size_t colon = name.find(':');
    assert(colon != CNxString::npos);
    const CNxString section = name.substr(0, colon);
    const CNxString key = name.substr(colon + 1);
    return IsGoodSection(section) && IsGoodKey(key) && IsGoodValue(value) &&
           name.length() <= MAX_LINE &&
           std::max(key.length(), KEY_WIDTH) + SEPARATOR + value.length() <= MAX_LINE;
}

bool AllSurviveSaving(const dictionary* ini) {
    for (ssize_t i = 0; i < ini->size; ++i) {
        const bool isEntry = ini->key[i] != nullptr && ini->val[i] != nullptr;
        if (isEntry && !SurvivesSaving(ini->key[i], ini->val[i])) {
            return false;
        }
    }
    return true;
}

// iniparser saves only the keys of sections that it knows by name. False without memory for it.
bool EnsureSection(dictionary* ini, const CNxString& name) {
    const CNxString section = name.substr(0, name.find(':'));
    if (section.empty() || iniparser_find_entry(ini, section.c_str()) != 0) {
        return true;
    }
    return iniparser_set(ini, section.c_str(), nullptr) == 0;
}

// Makes every section known by its name, and by no other: iniparser would write the names without
// text or with a ':' in forms that it cannot read. False when the memory ran out.
bool TidySections(dictionary* ini) {
    for (ssize_t i = 0; i < ini->size; ++i) {
        const CNxString name(ini->key[i]);
        if (ini->key[i] == nullptr) {
            continue;
        }
        if (!EnsureSection(ini, name)) {
            return false;
        }
        const bool isSection = ini->val[i] == nullptr;
        if (isSection && (name.empty() || name.find(':') != CNxString::npos)) {
            dictionary_unset(ini, name.c_str());
        }
    }
    return true;
}

// iniparser's own dump forgets the keys above the first section, or spoils their names.
void DumpKeysWithoutSection(const dictionary* ini, FILE* out) {
    for (ssize_t i = 0; i < ini->size; ++i) {
        if (ini->key[i] != nullptr && ini->key[i][0] == ':' && ini->val[i] != nullptr) {
            std::fprintf(out, "%-30s = %s\n", ini->key[i] + 1, ini->val[i]);
        }
    }
}

using Entry = std::pair<CNxString, CNxString>;

// Of an entry that is there; that cannot fail.
void ChangeValue(dictionary* ini, const CNxString& name, const CNxString& value) {
    assert(HasValue(ini, name));
    static_cast<void>(iniparser_set(ini, name.c_str(), value.c_str()));
}

// Puts values into the quotes that the file needs. Returns the entries that it has changed, as they
// were.
std::vector<Entry> QuoteValues(dictionary* ini) {
    std::vector<Entry> original;
    for (ssize_t i = 0; i < ini->size; ++i) {
        if (ini->key[i] == nullptr || ini->val[i] == nullptr) {
            continue;
        }
        const Entry entry(ini->key[i], ini->val[i]);
        const CNxString text = ToFileText(entry.second);
        if (text != entry.second) {
            ChangeValue(ini, entry.first, text);
            original.push_back(entry);
        }
    }
    return original;
}

[[gnu::format(printf, 1, 2)]] int SayProblem(const char* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    SayOnStderr("%s", text);
    return length;
}

// iniparser's own messages go where lines go.
dictionary* Load(const CNxString& path) {
    iniparser_set_error_callback(&SayProblem);
    dictionary* const ini = iniparser_load(path.c_str());
    iniparser_set_error_callback(nullptr);
    return ini;
}

bool Dump(dictionary* ini, const CNxString& path) {
    if (!TidySections(ini)) {
        return false;
    }
    const int fd =
        ToHighDescriptor(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    FILE* const out = fd < 0 ? nullptr : fdopen(fd, "w");
    if (out == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
        return false;
    }
    const std::vector<Entry> original = QuoteValues(ini);
    DumpKeysWithoutSection(ini, out);
    if (iniparser_getnsec(ini) > 0) {
        iniparser_dump_ini(ini, out);
    }
    for (const Entry& entry : original) {
        ChangeValue(ini, entry.first, entry.second);
    }
    const bool isWritten = std::ferror(out) == 0;
    return std::fclose(out) == 0 && isWritten;
}

}  // namespace

int CConfigFile::Open(const CNxString& path) {
    Close();
    if (path.empty()) {
        return -1;
    }
    m_path = path;
    // iniparser would wait for the writer of a FIFO.
    struct stat status {};
    const bool isOther = stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
    m_ini = isOther ? nullptr : Load(path);
    return m_ini == nullptr ? -1 : 0;
}

void CConfigFile::Close() {
    if (m_ini != nullptr) {
        iniparser_freedict(m_ini);
        m_ini = nullptr;
    }
}

int CConfigFile::GetIntParam(const CNxString& section, const CNxString& key, int defaultValue) {
    const CNxString name = EntryName(section, key);
    return HasValue(m_ini, name) ? iniparser_getint(m_ini, name.c_str(), defaultValue)
                                 : defaultValue;
}

CNxString CConfigFile::GetStringParam(const CNxString& section, const CNxString& key,
                                      CNxString defaultValue) {
    const CNxString name = EntryName(section, key);
    const char* const value = iniparser_getstring(m_ini, name.c_str(), nullptr);
    CNxString resolved;
    const NxResult result =
        ResolveStringEnv(value == nullptr ? std::move(defaultValue) : CNxString(value), resolved);
    return result == NX_OK ? resolved : CNxString();
}

bool CConfigFile::GetBoolParam(const CNxString& section, const CNxString& key, bool defaultValue) {
    const CNxString name = EntryName(section, key);
    return HasValue(m_ini, name)
               ? iniparser_getboolean(m_ini, name.c_str(), defaultValue ? 1 : 0) != 0
               : defaultValue;
}

int CConfigFile::SetIntParam(const CNxString& section, const CNxString& key, int value) {
    char text[64];
    std::snprintf(text, sizeof(text), "%d", value);
    return SetStringParam(section, key, text);
}

int CConfigFile::SetStringParam(const CNxString& section, const CNxString& key,
                                const CNxString& value) {
    const CNxString name = EntryName(section, key);
    if (m_ini == nullptr || !SurvivesSaving(name, value) || !EnsureSection(m_ini, name)) {
        return -1;
    }
    return iniparser_set(m_ini, name.c_str(), value.c_str());
}

int CConfigFile::SetBoolParam(const CNxString& section, const CNxString& key, bool value) {
    return SetStringParam(section, key, value ? "yes" : "no");
}

NxResult CConfigFile::SaveConfig() {
    return SaveToOtherConfig(m_path);
}

NxResult CConfigFile::SaveToOtherConfig(const CNxString& path) {
    if (m_ini == nullptr || path.empty()) {
        return NX_ERROR_FAILURE;
    }
    if (!AllSurviveSaving(m_ini) || !Dump(m_ini, path)) {
        SayOnStderr("SaveToOtherConfig: cannot open %s\n", path.c_str());
        return NX_ERROR_FAILURE;
    }
    return NX_OK;
}
