#include <fcntl.h>
#include <http_server/Files.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <memory>

namespace http_server {

namespace {

struct Type {
    std::string_view end;
    std::string_view name;
};

constexpr Type c_types[] = {
    {".html", "text/html; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".txt", "text/plain; charset=utf-8"},
    {".md", "text/markdown; charset=utf-8"},
    {".json", "application/json"},
    {".xml", "application/xml"},
    {".pdf", "application/pdf"},
    {".wasm", "application/wasm"},
    {".zip", "application/zip"},
    {".gz", "application/gzip"},
    {".png", "image/png"},
    {".jpg", "image/jpeg"},
    {".jpeg", "image/jpeg"},
    {".gif", "image/gif"},
    {".svg", "image/svg+xml"},
    {".webp", "image/webp"},
    {".ico", "image/x-icon"},
    {".woff2", "font/woff2"},
    {".mp4", "video/mp4"},
};

// Not waiting for the other end of a pipe, which is none of the files anyway.
constexpr int c_flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

bool Decode(std::string_view text, std::string& path) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned char byte = static_cast<unsigned char>(text[i]);
        if (byte == '%') {
            const char* const end = text.data() + std::min(i + 3, text.size());
            const auto [at, error] = std::from_chars(text.data() + i + 1, end, byte, 16);
            if (error != std::errc() || at != text.data() + i + 3) {
                return false;
            }
            i += 2;
        }
        if (byte == '\0') {
            return false;
        }
        path += static_cast<char>(byte);
    }
    return true;
}

}  // namespace

bool ReadTarget(std::string_view target, std::string& path) {
    path.clear();
    // The form for proxies, which servers take too (RFC 9112, section 3.2.2).
    const std::size_t scheme = target.find("://");
    if (scheme != std::string_view::npos && target.front() != '/') {
        const std::size_t slash = target.find('/', scheme + 3);
        target = slash == std::string_view::npos ? "/" : target.substr(slash);
    }
    if (target.empty() || target.front() != '/') {
        return false;
    }
    const std::size_t begin = target.find_first_not_of('/');
    const std::size_t end = target.find_first_of("?#");
    return begin >= end || Decode(target.substr(begin, end - begin), path);
}

std::string EncodePath(std::string_view path) {
    constexpr std::string_view c_plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/";
    constexpr std::string_view c_digits = "0123456789ABCDEF";
    std::string text;
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (c_plain.find(c) != std::string_view::npos) {
            text += c;
        } else {
            text += {'%', c_digits[byte >> 4], c_digits[byte & 15]};
        }
    }
    return text;
}

std::string_view GetContentType(std::string_view path) {
    if (path.empty() || path.back() == '/') {
        return c_types[0].name;
    }
    for (const Type& type : c_types) {
        if (path.size() > type.end.size() &&
            path.substr(path.size() - type.end.size()) == type.end) {
            return type.name;
        }
    }
    return "application/octet-stream";
}

bool Files::Open(const std::string& folder) {
    m_folder.SetHandle(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<char, void (*)(void*)> resolved(realpath(folder.c_str(), nullptr), free);
    m_resolved = resolved ? resolved.get() : "";
    return m_folder.GetHandle() != -1 && resolved;
}

Files::EFound Files::Find(const std::string& path, File& file) const {
    const bool isIndex = path.empty() || path.back() == '/';
    const int opened = OpenBeneath((isIndex ? path + "index.html" : path).c_str());
    file.descriptor.SetHandle(opened);
    if (opened == -1) {
        const bool isOut = errno == EMFILE || errno == ENFILE || errno == ENOMEM;
        return isOut ? EFound::NO_DESCRIPTOR : EFound::NOTHING;
    }
    struct stat status {};
    if (fstat(opened, &status) != 0) {
        return EFound::NOTHING;
    }
    file.size = static_cast<std::uint64_t>(status.st_size);
    file.changed = status.st_mtim;
    if (S_ISREG(status.st_mode)) {
        return EFound::FILE;
    }
    return S_ISDIR(status.st_mode) && !isIndex ? EFound::FOLDER : EFound::NOTHING;
}

int Files::OpenBeneath(const char* path) const {
    open_how how{};
    how.flags = c_flags;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    const long opened = syscall(SYS_openat2, m_folder.GetHandle(), path, &how, sizeof(how));
    // A system, or a container, that does not have the call; or names that change meanwhile.
    const bool isUnknown = opened == -1 && (errno == ENOSYS || errno == EPERM || errno == EAGAIN);
    return isUnknown ? OpenResolved(path) : static_cast<int>(opened);
}

// Whoever may change the folder meanwhile could lead out of it by this way.
int Files::OpenResolved(const char* path) const {
    const std::string whole = m_resolved + "/" + path;
    const std::unique_ptr<char, void (*)(void*)> resolved(realpath(whole.c_str(), nullptr), free);
    if (!resolved) {
        return -1;
    }
    const std::string_view found = resolved.get();
    const std::string inside = m_resolved == "/" ? "/" : m_resolved + "/";
    if (found != m_resolved && found.substr(0, inside.size()) != inside) {
        errno = EXDEV;
        return -1;
    }
    return open(resolved.get(), c_flags | O_NOFOLLOW);
}

}  // namespace http_server
