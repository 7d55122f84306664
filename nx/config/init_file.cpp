#include <fcntl.h>
#include <nx/config/init_file.h>
#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/CNxString.h>
#include <nx/foundation/high_descriptor.h>
#include <nx/foundation/own_lines.h>
#include <nx/process/trace_setting.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr char WHITE_SPACE[] = " \t\r\n";

struct CFileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
using CFile = std::unique_ptr<FILE, CFileCloser>;

// What errno says of a path to something else than a regular file.
constexpr int NOT_REGULAR = EINVAL;

// Does not wait for the writer of a FIFO, nor for a device, and takes neither. Null with errno;
// ENOENT for a file that is too short.
CFile OpenProfile(const char* path, off_t minSize = 0) {
    const int fd = path == nullptr
                       ? -1
                       : ToHighDescriptor(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (fd < 0) {
        return nullptr;
    }
    struct stat status {};
    bool isGood = fstat(fd, &status) == 0;
    if (isGood && (!S_ISREG(status.st_mode) || status.st_size < minSize)) {
        errno = S_ISREG(status.st_mode) ? ENOENT : NOT_REGULAR;
        isGood = false;
    }
    CFile file(isGood ? fdopen(fd, "r") : nullptr);
    if (file == nullptr) {
        const CKeptErrno keptErrno;
        close(fd);
    }
    return file;
}

// The process's own. That it has none is no fault.
CFile OpenConfig(off_t minSize = 0) {
    CFile file = OpenProfile(g_strConfigfile1, minSize);
    if (file == nullptr && errno != ENOENT && errno != ENOTDIR) {
        ComplainOnce("read", g_strConfigfile1,
                     errno == NOT_REGULAR ? "not a regular file" : std::strerror(errno));
    }
    return file;
}

// A section header's name, or null when the line is no header.
char* SectionName(char* line) {
    char* const open = std::strchr(line, '[');
    char* const close = std::strchr(line, ']');
    if (open == nullptr || close == nullptr) {
        return nullptr;
    }
    *close = '\0';
    return close < open ? close : trim_string(open + 1);
}

char* Unquote(char* value) {
    const size_t length = std::strlen(value);
    const bool isQuoted =
        length >= 2 && (value[0] == '"' || value[0] == '\'') && value[length - 1] == value[0];
    if (!isQuoted) {
        return value;
    }
    value[length - 1] = '\0';
    return trim_string(value + 1);
}

// The value when the line is the entry of that key, otherwise null.
char* EntryValue(char* line, const char* key) {
    char* const equals = std::strchr(line, '=');
    if (equals == nullptr) {
        return nullptr;
    }
    *equals = '\0';
    if (strcasecmp(trim_string(line), key) != 0) {
        return nullptr;
    }
    return Unquote(trim_string(equals + 1));
}

// As read_init_file, but from the beginning of the file, and `out` is always terminated.
bool LookUp(FILE* file, const char* section, const char* key, char* out, unsigned long size) {
    assert(out != nullptr && size > 0);
    out[0] = '\0';
    if (file != nullptr) {
        std::rewind(file);
    }
    const bool isFound = read_init_file(file, section, key, out, size - 1);
    out[size - 1] = '\0';
    assert(isFound || out[0] == '\0');
    return isFound;
}

void DropSemicolon(char* value) {
    const size_t length = std::strlen(value);
    if (length > 0 && value[length - 1] == ';') {
        value[length - 1] = '\0';
    }
}

bool GetString(FILE* file, const char* section, const char* key, char* out, unsigned long size) {
    const bool hasValue = LookUp(file, section, key, out, size) && out[0] != '\0';
    DropSemicolon(out);
    return hasValue;
}

// Room for as many bytes of a value as count, and the terminator.
template <size_t Bytes>
struct CParam {
    CParam(FILE* file, const char* section, const char* key)
        : m_hasValue(GetString(file, section, key, m_text, sizeof(m_text))) {}
    char m_text[Bytes + 1];
    const bool m_hasValue;
};

}  // namespace

bool read_init_file(FILE* stream, const char* section, const char* key, char* out,
                    unsigned long size) {
    if (stream == nullptr || section == nullptr || key == nullptr || out == nullptr) {
        return false;
    }
    bool isWanted = false;
    char line[2048];
    while (std::fgets(line, sizeof(line), stream) != nullptr) {
        if (is_comment_line(line)) {
            continue;
        }
        if (const char* const name = SectionName(line)) {
            if (isWanted) {
                return false;
            }
            isWanted = strcasecmp(name, section) == 0;
            continue;
        }
        const char* const value = isWanted ? EntryValue(line, key) : nullptr;
        if (value != nullptr) {
            std::strncpy(out, value, size);
            return true;
        }
    }
    return false;
}

char* trim_string(char* s) {
    if (s == nullptr) {
        return nullptr;
    }
    s += std::strspn(s, WHITE_SPACE);
    size_t length = std::strlen(s);
    while (length > 0 && std::strchr(WHITE_SPACE, s[length - 1]) != nullptr) {
        s[--length] = '\0';
    }
    return s;
}

bool is_comment_line(const char* s) {
    return s != nullptr && s[std::strspn(s, WHITE_SPACE)] == '#';
}

int get_int_from_profile(const char* section, const char* key, int defaultValue, const char* path) {
    char text[257];
    if (!LookUp(OpenProfile(path).get(), section, key, text, sizeof(text))) {
        return defaultValue;
    }
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return end == text ? defaultValue : static_cast<int>(value);
}

unsigned long get_string_from_profile(const char* section, const char* key,
                                      const char* defaultValue, char* out, unsigned long size,
                                      const char* path) {
    if (out == nullptr || size == 0) {
        return 0;
    }
    // A copy, for the default may be what `out` holds.
    const CNxString fallback(defaultValue);
    if (!LookUp(OpenProfile(path).get(), section, key, out, size)) {
        std::strncpy(out, fallback.c_str(), size - 1);
    }
    return std::strlen(out);
}

bool get_string_param(const char* section, const char* key, char* out, unsigned long size) {
    if (out == nullptr || size == 0) {
        return false;
    }
    return GetString(OpenConfig().get(), section, key, out, size);
}

FILE* open_config_file() {
    return OpenConfig(1).release();
}

int get_int_param(const char* section, const char* key) {
    return get_int_param(OpenConfig().get(), section, key);
}

int get_int_param(FILE* file, const char* section, const char* key) {
    const CParam<256> param(file, section, key);
    return static_cast<int>(std::strtol(param.m_text, nullptr, 10));
}

std::uint16_t get_uint16_param(const char* section, const char* key) {
    return static_cast<std::uint16_t>(get_int_param(section, key));
}

std::uint32_t get_uint32_param(const char* section, const char* key) {
    const CParam<256> param(OpenConfig().get(), section, key);
    return static_cast<std::uint32_t>(std::strtoul(param.m_text, nullptr, 10));
}

unsigned char get_bool_param(const char* section, const char* key, unsigned char defaultValue) {
    return get_bool_param(OpenConfig().get(), section, key, defaultValue);
}

unsigned char get_bool_param(FILE* file, const char* section, const char* key,
                             unsigned char defaultValue) {
    const CParam<512> param(file, section, key);
    if (!param.m_hasValue) {
        return defaultValue;
    }
    return strcasecmp(param.m_text, "TRUE") == 0 ? 1 : 0;
}
