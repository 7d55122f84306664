// The files below a folder, and nothing else.
#pragma once

#include <nx/net/CNxSocket.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace http_server {

struct File {
    CNxSocketBase descriptor;
    std::uint64_t size = 0;
    timespec changed{};
};

// The path that the target of a request names: decoded, without the query, and not beginning with
// a slash. False for a target that names none.
[[nodiscard]] bool ReadTarget(std::string_view target, std::string& path);

// As it is written in a header.
std::string EncodePath(std::string_view path);

// By the end of its name.
std::string_view GetContentType(std::string_view path);

// Any thread may use it once it is open.
class Files {
public:
    enum class EFound { FILE, FOLDER, NOTHING, NO_DESCRIPTOR };

    // False with errno when there is no such folder.
    [[nodiscard]] bool Open(const std::string& folder);

    // Neither ".." nor a link leads out of the folder. A path that ends with a slash, and "", means
    // the index.html there. FOLDER: one, but named without the slash.
    EFound Find(const std::string& path, File& file) const;

private:
    int OpenBeneath(const char* path) const;
    int OpenResolved(const char* path) const;

    CNxSocketBase m_folder;
    std::string m_resolved;
};

}  // namespace http_server
