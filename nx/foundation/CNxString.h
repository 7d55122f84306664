// The string type of every interface of the library: a value type over one std::string.
//
// Names, arguments and meaning are those of std::string unless stated here. A null `const char*`
// makes an empty string in the constructor (so also in `s = nullptr`). Everywhere else - compared,
// appended, searched for - it throws std::logic_error("basic_string::_M_construct null not valid");
// with a count of 0 it is an empty range. Positions beyond the end throw std::out_of_range.
#pragma once

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

// Copying copies the characters; nothing is shared, so each object follows the rules of any plain
// value: many readers, or one writer.
class CNxString {
public:
    static constexpr size_t npos = std::string::npos;

    CNxString() = default;
    CNxString(const char* s) : m_data(s == nullptr ? "" : s) {}
    CNxString(const char* s, size_t n) : m_data(NotNull(s, n), n) {}
    CNxString(const CNxString& s, size_t pos, size_t n) : m_data(s.m_data, pos, n) {}
    CNxString(size_t n, char c) : m_data(n, c) {}
    explicit CNxString(std::string s) noexcept : m_data(std::move(s)) {}

    // The string inside.
    const std::string& GetRawData() const noexcept { return m_data; }
    std::string& GetRawData() noexcept { return m_data; }

    // For whatever takes a std::string_view, and for std::string(s).
    operator std::string_view() const noexcept { return m_data; }

    // Converts every byte in place with tolower(3): in the "C" locale A to Z, nothing else.
    void Tolower();

    const char* c_str() const noexcept { return m_data.c_str(); }
    const char* data() const noexcept { return m_data.data(); }
    size_t length() const noexcept { return m_data.length(); }
    size_t size() const noexcept { return m_data.size(); }
    bool empty() const noexcept { return m_data.empty(); }
    size_t capacity() const noexcept { return m_data.capacity(); }
    void reserve(size_t n) { m_data.reserve(n); }
    void resize(size_t n) { m_data.resize(n); }
    void resize(size_t n, char c) { m_data.resize(n, c); }
    void clear() noexcept { m_data.clear(); }
    void swap(CNxString& s) noexcept { m_data.swap(s.m_data); }

    char& operator[](size_t pos) { return m_data[pos]; }
    const char& operator[](size_t pos) const { return m_data[pos]; }
    char& at(size_t pos) { return m_data.at(pos); }
    const char& at(size_t pos) const { return m_data.at(pos); }
    char& front() { return m_data.front(); }
    const char& front() const { return m_data.front(); }
    char& back() { return m_data.back(); }
    const char& back() const { return m_data.back(); }
    void push_back(char c) { m_data.push_back(c); }
    void pop_back() { m_data.pop_back(); }
    size_t copy(char* to, size_t n, size_t pos = 0) const { return m_data.copy(to, n, pos); }
    CNxString substr(size_t pos = 0, size_t n = npos) const { return {*this, pos, n}; }

    CNxString& operator+=(const CNxString& s) { return append(s); }
    CNxString& operator+=(const char* s) { return append(s); }
    CNxString& operator+=(char c) {
        m_data += c;
        return *this;
    }

    CNxString& append(const CNxString& s) { return Self(m_data.append(s.m_data)); }
    CNxString& append(const CNxString& s, size_t pos, size_t n) {
        return Self(m_data.append(s.m_data, pos, n));
    }
    CNxString& append(const char* s) { return Self(m_data.append(NotNull(s))); }
    CNxString& append(const char* s, size_t n) { return Self(m_data.append(NotNull(s, n), n)); }
    CNxString& append(size_t n, char c) { return Self(m_data.append(n, c)); }
    // The bytes of [first, last). A template so that `append(s, 0)` means a count.
    template <class Char>
    CNxString& append(Char* first, Char* last) {
        return Self(m_data.append(static_cast<const char*>(first), static_cast<const char*>(last)));
    }

    CNxString& assign(const CNxString& s) { return Self(m_data.assign(s.m_data)); }
    CNxString& assign(const CNxString& s, size_t pos, size_t n) {
        return Self(m_data.assign(s.m_data, pos, n));
    }
    CNxString& assign(const char* s) { return Self(m_data.assign(NotNull(s))); }
    CNxString& assign(const char* s, size_t n) { return Self(m_data.assign(NotNull(s, n), n)); }
    CNxString& assign(size_t n, char c) { return Self(m_data.assign(n, c)); }

    CNxString& insert(size_t at, const CNxString& s) { return Self(m_data.insert(at, s.m_data)); }
    CNxString& insert(size_t at, const CNxString& s, size_t pos, size_t n) {
        return Self(m_data.insert(at, s.m_data, pos, n));
    }
    CNxString& insert(size_t at, const char* s) { return Self(m_data.insert(at, NotNull(s))); }
    CNxString& insert(size_t at, const char* s, size_t n) {
        return Self(m_data.insert(at, NotNull(s, n), n));
    }
    CNxString& insert(size_t at, size_t n, char c) { return Self(m_data.insert(at, n, c)); }

    CNxString& erase(size_t pos = 0, size_t n = npos) { return Self(m_data.erase(pos, n)); }

    CNxString& replace(size_t at, size_t len, const CNxString& s) {
        return Self(m_data.replace(at, len, s.m_data));
    }
    CNxString& replace(size_t at, size_t len, const CNxString& s, size_t pos, size_t n) {
        return Self(m_data.replace(at, len, s.m_data, pos, n));
    }
    CNxString& replace(size_t at, size_t len, const char* s) {
        return Self(m_data.replace(at, len, NotNull(s)));
    }
    CNxString& replace(size_t at, size_t len, const char* s, size_t n) {
        return Self(m_data.replace(at, len, NotNull(s, n), n));
    }
    CNxString& replace(size_t at, size_t len, size_t n, char c) {
        return Self(m_data.replace(at, len, n, c));
    }

    int compare(const CNxString& s) const { return m_data.compare(s.m_data); }
    int compare(size_t at, size_t len, const CNxString& s) const {
        return m_data.compare(at, len, s.m_data);
    }
    int compare(size_t at, size_t len, const CNxString& s, size_t pos, size_t n) const {
        return m_data.compare(at, len, s.m_data, pos, n);
    }
    int compare(const char* s) const { return m_data.compare(NotNull(s)); }
    int compare(size_t at, size_t len, const char* s) const {
        return m_data.compare(at, len, NotNull(s));
    }
    int compare(size_t at, size_t len, const char* s, size_t n) const {
        return m_data.compare(at, len, NotNull(s, n), n);
    }

    // Each returns npos when there is nothing to find.
    // clang-format off
    size_t find(const CNxString& s, size_t pos = 0) const noexcept { return m_data.find(s.m_data, pos); }
    size_t find(const char* s, size_t pos = 0) const { return m_data.find(NotNull(s), pos); }
    size_t find(const char* s, size_t pos, size_t n) const { return m_data.find(NotNull(s, n), pos, n); }
    size_t find(char c, size_t pos = 0) const noexcept { return m_data.find(c, pos); }
    size_t rfind(const CNxString& s, size_t pos = npos) const noexcept { return m_data.rfind(s.m_data, pos); }
    size_t rfind(const char* s, size_t pos = npos) const { return m_data.rfind(NotNull(s), pos); }
    size_t rfind(const char* s, size_t pos, size_t n) const { return m_data.rfind(NotNull(s, n), pos, n); }
    size_t rfind(char c, size_t pos = npos) const noexcept { return m_data.rfind(c, pos); }
    size_t find_first_of(const CNxString& s, size_t pos = 0) const noexcept { return m_data.find_first_of(s.m_data, pos); }
    size_t find_first_of(const char* s, size_t pos = 0) const { return m_data.find_first_of(NotNull(s), pos); }
    size_t find_first_of(const char* s, size_t pos, size_t n) const { return m_data.find_first_of(NotNull(s, n), pos, n); }
    size_t find_first_of(char c, size_t pos = 0) const noexcept { return m_data.find_first_of(c, pos); }
    size_t find_last_of(const CNxString& s, size_t pos = npos) const noexcept { return m_data.find_last_of(s.m_data, pos); }
    size_t find_last_of(const char* s, size_t pos = npos) const { return m_data.find_last_of(NotNull(s), pos); }
    size_t find_last_of(const char* s, size_t pos, size_t n) const { return m_data.find_last_of(NotNull(s, n), pos, n); }
    size_t find_last_of(char c, size_t pos = npos) const noexcept { return m_data.find_last_of(c, pos); }
    size_t find_first_not_of(const CNxString& s, size_t pos = 0) const noexcept { return m_data.find_first_not_of(s.m_data, pos); }
    size_t find_first_not_of(const char* s, size_t pos = 0) const { return m_data.find_first_not_of(NotNull(s), pos); }
    size_t find_first_not_of(const char* s, size_t pos, size_t n) const { return m_data.find_first_not_of(NotNull(s, n), pos, n); }
    size_t find_first_not_of(char c, size_t pos = 0) const noexcept { return m_data.find_first_not_of(c, pos); }
    size_t find_last_not_of(const CNxString& s, size_t pos = npos) const noexcept { return m_data.find_last_not_of(s.m_data, pos); }
    size_t find_last_not_of(const char* s, size_t pos = npos) const { return m_data.find_last_not_of(NotNull(s), pos); }
    size_t find_last_not_of(const char* s, size_t pos, size_t n) const { return m_data.find_last_not_of(NotNull(s, n), pos, n); }
    size_t find_last_not_of(char c, size_t pos = npos) const noexcept { return m_data.find_last_not_of(c, pos); }
    // clang-format on

    // A member where the other comparisons are free functions: it throws for null, and a free twin
    // would make `s == "a"` ambiguous.
    bool operator==(const char* s) const { return compare(s) == 0; }

private:
    static const char* NotNull(const char* s) {
        if (s == nullptr) {
            ThrowNull();
        }
        return s;
    }
    static const char* NotNull(const char* s, size_t n) { return n == 0 ? s : NotNull(s); }
    [[noreturn]] static void ThrowNull();
    // Takes what the forwarded call returns, which is m_data, and gives the string around it.
    CNxString& Self(std::string& /*data*/) noexcept { return *this; }

    std::string m_data;
};

// All comparisons are byte by byte, bytes taken as unsigned.
// clang-format off
inline bool operator==(const CNxString& a, const CNxString& b) noexcept { return a.GetRawData() == b.GetRawData(); }
inline bool operator!=(const CNxString& a, const CNxString& b) noexcept { return a.GetRawData() != b.GetRawData(); }
inline bool operator<(const CNxString& a, const CNxString& b) noexcept { return a.GetRawData() < b.GetRawData(); }
inline bool operator<=(const CNxString& a, const CNxString& b) noexcept { return a.GetRawData() <= b.GetRawData(); }
inline bool operator>(const CNxString& a, const CNxString& b) noexcept { return a.GetRawData() > b.GetRawData(); }
inline bool operator>=(const CNxString& a, const CNxString& b) noexcept { return a.GetRawData() >= b.GetRawData(); }
inline bool operator!=(const CNxString& a, const char* b) { return a.compare(b) != 0; }
inline bool operator<(const CNxString& a, const char* b) { return a.compare(b) < 0; }
inline bool operator<=(const CNxString& a, const char* b) { return a.compare(b) <= 0; }
inline bool operator>(const CNxString& a, const char* b) { return a.compare(b) > 0; }
inline bool operator>=(const CNxString& a, const char* b) { return a.compare(b) >= 0; }
inline bool operator==(const char* a, const CNxString& b) { return b.compare(a) == 0; }
inline bool operator!=(const char* a, const CNxString& b) { return b.compare(a) != 0; }
inline bool operator<(const char* a, const CNxString& b) { return b.compare(a) > 0; }
inline bool operator<=(const char* a, const CNxString& b) { return b.compare(a) >= 0; }
inline bool operator>(const char* a, const CNxString& b) { return b.compare(a) < 0; }
inline bool operator>=(const char* a, const CNxString& b) { return b.compare(a) <= 0; }
// clang-format on

inline CNxString operator+(const CNxString& a, const CNxString& b) {
    return CNxString(a.GetRawData() + b.GetRawData());
}
inline CNxString operator+(const CNxString& a, const char* b) {
    return CNxString(a).append(b);
}
inline CNxString operator+(const char* a, const CNxString& b) {
    return CNxString().append(a).append(b);
}
inline CNxString operator+(const CNxString& a, char b) {
    return CNxString(a.GetRawData() + b);
}
inline CNxString operator+(char a, const CNxString& b) {
    return CNxString(a + b.GetRawData());
}
// A sum of several is built in one buffer.
inline CNxString operator+(CNxString&& a, const CNxString& b) {
    return std::move(a.append(b));
}
inline CNxString operator+(CNxString&& a, const char* b) {
    return std::move(a.append(b));
}
inline CNxString operator+(CNxString&& a, char b) {
    return std::move(a += b);
}

// Writes the characters.
std::ostream& operator<<(std::ostream& out, const CNxString& s);

// For std::unordered_map and its kin: std::unordered_map<CNxString, T, CNxStringHash>.
struct CNxStringHash {
    size_t operator()(const CNxString& s) const noexcept {
        return std::hash<std::string>()(s.GetRawData());
    }
};

// Replaces every `from` in `text` by `to`, left to right, never looking into what it has put in.
// Always npos, the result of the search that found no more. An empty `from` changes nothing.
size_t CNxStringReplace(CNxString& text, const CNxString& from, const CNxString& to);
