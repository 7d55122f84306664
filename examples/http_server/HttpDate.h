// Times as HTTP writes them: "Sun, 06 Nov 1994 08:49:37 GMT" (RFC 9110, section 5.6.7).
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace http_server {

std::string MakeHttpDate(std::time_t time);

// The present time. Good until the next call on this thread.
const std::string& GetHttpDateNow();

// One of the three forms that there are; nothing for another text.
std::optional<std::time_t> ReadHttpDate(const std::string& text);

}  // namespace http_server
