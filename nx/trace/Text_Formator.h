// Builds one trace message in a buffer of the caller's, stream style:
//
//     char buffer[512];
//     Text_Formator text(buffer, sizeof(buffer));
//     text << "peer " << address << " sent type 0x" << CNxT120Trace::HEX << type;
//     INxTraceManager::Instance()->TraceString(NX_TRACE_INFO, text);
//
// NxTrace (nx/trace/NxTrace.h) does both in one call.
//
// THE LAST 64 BYTES of the buffer stay free: a buffer of 64 bytes or less accepts nothing. What
// does not fit is cut silently.
#pragma once

#include <nx/foundation/CNxString.h>

#include <cstddef>
#include <string_view>

// Also known as CNxT120Trace::Text_Formator. Used by one thread; the buffer must outlive it.
class Text_Formator {
public:
    // Switch hexadecimal numbers on and off; any other value does nothing.
    enum Ordix : int { HEX = 0, DEC = 1 };

    // Zeroes the whole buffer, which is what terminates the text.
    Text_Formator(char* buffer, unsigned long size);
    virtual ~Text_Formator();

    Text_Formator(const Text_Formator&) = delete;
    Text_Formator& operator=(const Text_Formator&) = delete;

    // Starts anew: empty, decimal, the whole buffer zeroed.
    void reset();

    // Integers: decimal, or hexadecimal without "0x" when that is switched on, and then decimal
    // again for the next. A char is printed as a NUMBER: 'A' gives 65. Negative chars and shorts
    // in hexadecimal are sign-extended to 32 bits.
    Text_Formator& operator<<(char value);
    Text_Formator& operator<<(unsigned char value);
    Text_Formator& operator<<(short value);
    Text_Formator& operator<<(unsigned short value);
    Text_Formator& operator<<(int value);
    Text_Formator& operator<<(unsigned int value);
    Text_Formator& operator<<(long value);
    Text_Formator& operator<<(unsigned long value);
    Text_Formator& operator<<(long long value);
    Text_Formator& operator<<(unsigned long long value);

    // As "%f"; hexadecimal stays as it is.
    Text_Formator& operator<<(float value);
    Text_Formator& operator<<(double value);

    // Null is ignored; of the others the characters before the first zero byte count.
    Text_Formator& operator<<(const char* text);
    Text_Formator& operator<<(const CNxString& text);
    Text_Formator& operator<<(std::string_view text);

    // "0x" and lower-case digits, "0x0" for null. Switches to decimal.
    Text_Formator& operator<<(void* pointer);

    Text_Formator& operator<<(Ordix ordix);

    // The text so far.
    operator char*() { return m_buffer; }

    void set_hex_flag(unsigned char flag) { m_hexFlag = flag; }
    unsigned char get_hex_flag() const { return m_hexFlag; }

    // Appends as << does.
    void advance(const char* text);

private:
    template <class Number>
    Text_Formator& AppendNumber(const char* decimal, const char* hex, Number value);
    void Append(const char* text, size_t length);

    char* const m_buffer;
    const unsigned long m_size;
    unsigned long m_length = 0;
    unsigned char m_hexFlag = 0;
};
