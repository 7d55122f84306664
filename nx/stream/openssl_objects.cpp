#include <nx/stream/openssl_objects.h>
#include <openssl/err.h>

#include <system_error>

std::string TakeOpenSslError() {
    const char* data = nullptr;
    int flags = 0;
    const unsigned long code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags);
    const char* const reason = ERR_reason_error_string(code);
    std::string text = "OpenSSL gives no reason";
    if (ERR_SYSTEM_ERROR(code)) {
        text = std::generic_category().message(ERR_GET_REASON(code));
    } else if (reason != nullptr) {
        text = reason;
    }
    if ((flags & ERR_TXT_STRING) != 0 && *data != '\0') {
        text.append(": ").append(data);
    }
    ERR_clear_error();
    return text;
}
