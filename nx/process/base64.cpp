#include <nx/process/CatchBadAlloc.h>
#include <nx/process/base64.h>

#include <cassert>
#include <cstdint>
#include <limits>
#include <new>

namespace {

constexpr char c_fill = '=';

constexpr const char* GetAlphabet(ECnxBase64 kind) {
    return kind == ECnxBase64::STANDARD
               ? "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"
               : "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
}

constexpr unsigned char c_foreign = 0xFF;

// The six bits of each byte of a text.
struct CValues {
    constexpr explicit CValues(ECnxBase64 kind) {
        for (unsigned char& value : m_of) {
            value = c_foreign;
        }
        for (int value = 0; value < 64; ++value) {
            m_of[static_cast<unsigned char>(GetAlphabet(kind)[value])] =
                static_cast<unsigned char>(value);
        }
    }
    unsigned char m_of[256] = {};
};

// One to three bytes become two to four characters, and fill.
void AppendGroup(CNxString& text, const unsigned char* bytes, size_t count, ECnxBase64 kind) {
    assert(count >= 1 && count <= 3);
    std::uint32_t bits = static_cast<std::uint32_t>(bytes[0]) << 16;
    bits |= count > 1 ? static_cast<std::uint32_t>(bytes[1]) << 8 : 0;
    bits |= count > 2 ? bytes[2] : 0;
    for (size_t i = 0; i <= count; ++i) {
        text += GetAlphabet(kind)[bits >> (18 - 6 * i) & 63];
    }
    if (kind == ECnxBase64::STANDARD) {
        text.append(3 - count, c_fill);
    }
}

// Two to four characters become one to three bytes; false for a foreign one and for bits left over.
bool AppendBytes(CNxString& bytes, const char* text, size_t count, const CValues& values) {
    assert(count >= 2 && count <= 4);
    std::uint32_t bits = 0;
    for (size_t i = 0; i < count; ++i) {
        const unsigned char value = values.m_of[static_cast<unsigned char>(text[i])];
        if (value == c_foreign) {
            return false;
        }
        bits |= static_cast<std::uint32_t>(value) << (18 - 6 * i);
    }
    for (size_t i = 1; i < count; ++i) {
        bytes += static_cast<char>(bits >> 16 & 0xFF);
        bits <<= 8;
    }
    return (bits & 0xFFFFFF) == 0;
}

// Without the fill; npos when there is not as much of it as there must be.
size_t GetLengthWithoutFill(const CNxString& text) {
    if (text.size() % 4 != 0) {
        return CNxString::npos;
    }
    size_t length = text.size();
    while (length != 0 && text.size() - length < 2 && text[length - 1] == c_fill) {
        --length;
    }
    return length;
}

NxResult Decode(const CNxString& text, CNxString& bytes, ECnxBase64 kind) {
    static constexpr CValues c_values[] = {CValues(ECnxBase64::STANDARD), CValues(ECnxBase64::URL)};
    const CValues& values = c_values[static_cast<int>(kind)];
    const size_t length = kind == ECnxBase64::STANDARD ? GetLengthWithoutFill(text) : text.size();
    if (length == CNxString::npos || length % 4 == 1) {
        return NX_ERROR_INVALID_ARG;
    }
    CNxString decoded;
    decoded.reserve(length / 4 * 3 + 2);
    for (size_t at = 0; at < length; at += 4) {
        if (!AppendBytes(decoded, text.data() + at, length - at < 4 ? length - at : 4, values)) {
            return NX_ERROR_INVALID_ARG;
        }
    }
    bytes.swap(decoded);
    return NX_OK;
}

}  // namespace

CNxString cnx_base64_encode(const void* data, size_t size, ECnxBase64 kind) {
    if (size > std::numeric_limits<size_t>::max() / 2) {
        throw std::bad_alloc();
    }
    const auto* bytes = static_cast<const unsigned char*>(data);
    CNxString text;
    text.reserve((size + 2) / 3 * 4);
    for (size_t at = 0; at < size; at += 3) {
        AppendGroup(text, bytes + at, size - at < 3 ? size - at : 3, kind);
    }
    return text;
}

NxResult cnx_base64_decode(const CNxString& text, CNxString& bytes, ECnxBase64 kind) {
    return CatchBadAlloc([&] { return Decode(text, bytes, kind); });
}
