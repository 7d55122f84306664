#include <nx/config/CNxConfigInitFile.h>
#include <nx/config/init_file.h>
#include <nx/foundation/CNxUtils.h>

#include <cstdlib>
#include <utility>

namespace {

struct CValue {
    CValue(const CNxString& section, const CNxString& key) {
        m_isSet = get_string_param(section.c_str(), key.c_str(), m_text, sizeof(m_text));
    }
    char m_text[1024];
    bool m_isSet;
};

// `convert` is strtol or strtoul. They read what a number of any width would be read as.
template <class Number, class Convert>
Number NumberParam(const CNxString& section, const CNxString& key, Number defaultValue,
                   Convert convert) {
    const CValue value(section, key);
    char* end = nullptr;
    const auto number = convert(value.m_text, &end, 10);
    return end == value.m_text ? defaultValue : static_cast<Number>(number);
}

}  // namespace

int CNxConfigInitFile::GetIntParam(const CNxString& section, const CNxString& key,
                                   int defaultValue) {
    return NumberParam(section, key, defaultValue, std::strtol);
}

unsigned long CNxConfigInitFile::GetDwordParam(const CNxString& section, const CNxString& key,
                                               unsigned long defaultValue) {
    return NumberParam(section, key, defaultValue, std::strtoul);
}

unsigned short CNxConfigInitFile::GetWordParam(const CNxString& section, const CNxString& key,
                                               unsigned short defaultValue) {
    return NumberParam(section, key, defaultValue, std::strtoul);
}

CNxString CNxConfigInitFile::GetStringParam(const CNxString& section, const CNxString& key,
                                            CNxString defaultValue) {
    const CValue value(section, key);
    CNxString resolved;
    const CNxString text = value.m_isSet ? CNxString(value.m_text) : std::move(defaultValue);
    return ResolveStringEnv(text, resolved) == NX_OK ? resolved : CNxString();
}

bool CNxConfigInitFile::GetBoolParam(const CNxString& section, const CNxString& key,
                                     int defaultValue) {
    return get_bool_param(section.c_str(), key.c_str(), defaultValue != 0 ? 1 : 0) != 0;
}
