#include <nx/stream/openssl_objects.h>
#include <openssl/err.h>

#include <system_error>

namespace {

std::string GetText(unsigned long code, const char* data) {
    const char* const reason = ERR_reason_error_string(code);
    std::string text = "OpenSSL gives no reason";
    if (ERR_SYSTEM_ERROR(code)) {
        text = std::generic_category().message(ERR_GET_REASON(code));
    } else if (reason != nullptr) {
        text = reason;
    }
    if (*data != '\0') {
        text.append(": ").append(data);
    }
    return text;
}

}  // namespace

std::string TakeOpenSslError() {
    std::string text;
    bool isTls = false;
    const char* data = nullptr;
    int flags = 0;
    while (const unsigned long code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags)) {
        if (text.empty() || (!isTls && ERR_GET_LIB(code) == ERR_LIB_SSL)) {
            text = GetText(code, (flags & ERR_TXT_STRING) != 0 ? data : "");
            isTls = ERR_GET_LIB(code) == ERR_LIB_SSL;
        }
    }
    return text.empty() ? GetText(0, "") : text;
}
