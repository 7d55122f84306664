#include <http_server/HttpDate.h>

namespace http_server {

std::string MakeHttpDate(std::time_t time) {
    std::tm parts{};
    char text[64] = "";
    gmtime_r(&time, &parts);
    std::strftime(text, sizeof(text), "%a, %d %b %Y %H:%M:%S GMT", &parts);
    return text;
}

const std::string& GetHttpDateNow() {
    thread_local std::time_t t_time = 0;
    thread_local std::string t_text;
    const std::time_t now = std::time(nullptr);
    if (now != t_time) {
        t_text = MakeHttpDate(now);
        t_time = now;
    }
    return t_text;
}

std::optional<std::time_t> ReadHttpDate(const std::string& text) {
    for (const char* form :
         {"%a, %d %b %Y %H:%M:%S GMT", "%A, %d-%b-%y %H:%M:%S GMT", "%a %b %d %H:%M:%S %Y"}) {
        std::tm parts{};
        const char* const end = strptime(text.c_str(), form, &parts);
        if (end != nullptr && *end == '\0') {
            return timegm(&parts);
        }
    }
    return {};
}

}  // namespace http_server
