// Helpers around CNxString (numbers, splitting, environment variables, bounded copies, random
// strings) and two clocks. No function keeps state of its own; those that touch the process's
// state say so.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <nx/foundation/CNxString.h>
#include <nx/foundation/NxResult.h>

// Milliseconds since the epoch, wall clock.
long GetCurrentTimerInMSec();

// Whole seconds since the epoch, wall clock.
std::int64_t getCurrentTime();

// Convert a whole text as strtol(3) with base 0: "0x10" is 16, "010" is 8, white space and a sign
// may come first, and the unsigned forms take "-1" for the largest value.
// NX_OK, or NX_ERROR_FAILURE with `out` untouched for an empty text, for one that is not a number
// to its end, and for one out of the 64-bit range. The 32-bit forms have no range of their own:
// they store the low 32 bits. Set errno.
[[nodiscard]] NxResult StrToU64(const CNxString& text, unsigned long& out);
[[nodiscard]] NxResult StrTo64(const CNxString& text, long& out);
[[nodiscard]] NxResult StrToU32(const CNxString& text, unsigned int& out);
[[nodiscard]] NxResult StrTo32(const CNxString& text, int& out);

// The value in decimal.
CNxString U32ToStr(unsigned int value);
CNxString U64ToStr(unsigned long value);

// Appends the non-empty pieces of `text` between the delimiters to `pieces`. Returns how many
// delimiters were found, which is not the number of pieces. Surprises:
// - Without a delimiter in `text`, or with an empty one, nothing is appended, not even `text`.
// - A delimiter right after another is not seen: "a,,b" gives "a" and ",b", and returns 1.
// - The last piece begins one character after the beginning of the last delimiter, so with a
//   longer delimiter it carries the rest of it: "a::b" gives "a" and ":b".
size_t SplitString2(const CNxString& text, const CNxString& delimiter,
                    std::vector<CNxString>& pieces);

// The environment variable; empty when it is unset, or `name` is null or holds a zero byte. Must
// not run at the same time as setenv(3).
CNxString VOS_GetEnv(const char* name);
CNxString VOS_GetEnv(const CNxString& name);

// Puts `in` with its references ${NAME} replaced by environment variables into `out`, which may be
// the same object. Always NX_OK. Surprises:
// - An unbalanced reference makes the text "error! ${ is not match with } in string:" and `in`.
//   Two references without text between them ("${A}${B}") count as unbalanced.
// - A reference to an unset or empty variable leaves its bare name.
// - Once there is a reference, text between references is looked up too: "x${A}" replaces the x
//   when there is a variable named x.
NxResult ResolveStringEnv(const CNxString& in, CNxString& out);

// Copies min(length of `src`, dstSize - 1) bytes and writes NO terminating zero: the caller zeroes
// `dst` before. Null pointers and dstSize 0 copy nothing.
void BufferStringCopy(char* dst, size_t dstSize, const CNxString& src);
void BufferStringCopy(char* dst, size_t dstSize, const char* src);

// Writes `length` random letters and digits to `buffer` and returns what stands there then.
// WARNING: the terminating zero goes to index length + 1 (to index 1 when length <= 0), while the
// byte at index `length` stays as it was: `buffer` must have length + 2 bytes, zeroed before the
// call. A null `buffer` gives the empty string.
// WARNING: reseeds the process's rand(3) with the time in seconds, so calls within one second give
// the same string and other users of rand are disturbed. Not for secrets.
CNxString RandString(char* buffer, int length);
