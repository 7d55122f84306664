#include <nx/trace/Text_Formator.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr unsigned long RESERVED = 64;
// The largest double has 309 digits before the point and six after it.
constexpr size_t SCRATCH = 328;

}  // namespace

Text_Formator::Text_Formator(char* buffer, unsigned long size)
    : m_buffer(buffer), m_size(buffer == nullptr ? 0 : size) {
    reset();
}

Text_Formator::~Text_Formator() = default;

void Text_Formator::reset() {
    m_length = 0;
    m_hexFlag = 0;
    if (m_size > 0) {
        std::memset(m_buffer, 0, m_size);
    }
}

void Text_Formator::Append(const char* text, size_t length) {
    assert(m_length == 0 || m_length + RESERVED <= m_size);
    if (m_size < RESERVED + m_length) {
        return;
    }
    const size_t count = std::min(length, m_size - RESERVED - m_length);
    if (count > 0) {
        std::memcpy(m_buffer + m_length, text, count);
        m_length += count;
    }
}

void Text_Formator::advance(const char* text) {
    if (text != nullptr) {
        Append(text, std::strlen(text));
    }
}

template <class Number>
Text_Formator& Text_Formator::AppendNumber(const char* decimal, const char* hex, Number value) {
    char scratch[SCRATCH];
    const int length =
        std::snprintf(scratch, sizeof(scratch), m_hexFlag != 0 ? hex : decimal, value);
    assert(length > 0 && static_cast<size_t>(length) < sizeof(scratch));
    Append(scratch, static_cast<size_t>(length));
    m_hexFlag = 0;
    return *this;
}

Text_Formator& Text_Formator::operator<<(char value) {
    return *this << static_cast<int>(static_cast<signed char>(value));
}
Text_Formator& Text_Formator::operator<<(unsigned char value) {
    return *this << static_cast<int>(value);
}
Text_Formator& Text_Formator::operator<<(short value) {
    return *this << static_cast<int>(value);
}
Text_Formator& Text_Formator::operator<<(unsigned short value) {
    return *this << static_cast<int>(value);
}
Text_Formator& Text_Formator::operator<<(int value) {
    return AppendNumber("%d", "%x", value);
}
Text_Formator& Text_Formator::operator<<(unsigned int value) {
    return AppendNumber("%u", "%x", value);
}
Text_Formator& Text_Formator::operator<<(long value) {
    return AppendNumber("%ld", "%lx", value);
}
Text_Formator& Text_Formator::operator<<(unsigned long value) {
    return AppendNumber("%lu", "%lx", value);
}
Text_Formator& Text_Formator::operator<<(long long value) {
    return AppendNumber("%lld", "%llx", value);
}
Text_Formator& Text_Formator::operator<<(unsigned long long value) {
    return AppendNumber("%llu", "%llx", value);
}

Text_Formator& Text_Formator::operator<<(float value) {
    return *this << static_cast<double>(value);
}

Text_Formator& Text_Formator::operator<<(double value) {
    char scratch[SCRATCH];
    const int length = std::snprintf(scratch, sizeof(scratch), "%f", value);
    assert(length > 0 && static_cast<size_t>(length) < sizeof(scratch));
    Append(scratch, static_cast<size_t>(length));
    return *this;
}

Text_Formator& Text_Formator::operator<<(const char* text) {
    advance(text);
    return *this;
}

Text_Formator& Text_Formator::operator<<(const CNxString& text) {
    advance(text.c_str());
    return *this;
}

Text_Formator& Text_Formator::operator<<(std::string_view text) {
    Append(text.data(), text.substr(0, text.find('\0')).size());
    return *this;
}

Text_Formator& Text_Formator::operator<<(void* pointer) {
    m_hexFlag = 1;
    advance("0x");
    return *this << static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(pointer));
}

Text_Formator& Text_Formator::operator<<(Ordix ordix) {
    if (ordix == HEX || ordix == DEC) {
        m_hexFlag = ordix == HEX ? 1 : 0;
    }
    return *this;
}
