// Reads profile files - [section] lines and key=value lines - above all the process's own
// configuration file (g_strConfigfile1, nx/process/trace_setting.h).
//
// Nothing is cached: every look-up opens the file, scans it from the top and closes it, so an
// edited file counts from the next look-up on. Any thread may call any function. Without the file,
// the section or the key the caller gets the default. A path that does not lead to a regular file
// (a FIFO or a device, which could be waited for) counts as no file. Nothing is reported, except
// that a configuration file that is there and cannot be opened is told of once on standard error
// (nx/foundation/CNxOwnLines.h).
//
// The syntax, line by line; white space is " \t\r\n":
// - A line whose first visible character is '#' is a comment. Nothing else is: a ';' or '#' after
//   a value belongs to the value.
// - A line with '[' and ']' anywhere, "key=a[1]" too, is a section header. The name stands between
//   the first '[' and the first ']', trimmed; it is empty when ']' comes first.
// - Any other line with '=' is an entry: key and value are trimmed. A value in a pair of single or
//   double quotes loses them and is trimmed again.
// - Names compare without regard to case. Only the first section of a name is searched.
// - A line of more than 2047 bytes counts as several lines of at most 2047; what follows a zero
//   byte in a line is ignored.
//
// Numbers are read from the beginning of the value (decimal, a sign and white space may come
// first; what follows the digits is ignored) and truncated to the result type.
#pragma once

#include <cstdint>
#include <cstdio>

// Looks `key` up from the stream's position on. True when found; `out` is then filled as by
// strncpy(3): cut at `size`, zero-padded, and NOT terminated by a value of `size` bytes or more.
// False otherwise, or for a null argument; `out` is then untouched.
[[nodiscard]] bool read_init_file(FILE* stream, const char* section, const char* key, char* out,
                                  unsigned long size);

// Writes zeros over the white space at the end; returns the first character that is none.
// Null for null.
[[nodiscard]] char* trim_string(char* s);

// Whether the first visible character is '#'. False for null.
[[nodiscard]] bool is_comment_line(const char* s);

// From the file `path`. The default also for a value that is no number.
[[nodiscard]] int get_int_from_profile(const char* section, const char* key, int defaultValue,
                                       const char* path);

// Puts the value, or else the default (null: the empty text), into `out`, cut at size - 1 bytes and
// terminated. Returns its length; 0 for a null `out` or size 0.
unsigned long get_string_from_profile(const char* section, const char* key,
                                      const char* defaultValue, char* out, unsigned long size,
                                      const char* path);

// The process's configuration file, for several look-ups that are to see the same content; the
// caller closes it. Null when it cannot be opened, is no regular file, or is empty, as files are
// while they are being rewritten.
[[nodiscard]] FILE* open_config_file();

// The following read the process's configuration file, and drop one ';' at the value's end. Those
// with a `file` read that one from its beginning; null counts as a file without the key.

// Puts the value into `out`, cut at size - 1 bytes and terminated; the empty text when there is
// none. Returns whether there was one before its ';' was dropped: for "key=;" true and "". False
// for a null `out` or size 0.
[[nodiscard]] bool get_string_param(const char* section, const char* key, char* out,
                                    unsigned long size);

// 0 for a value that is missing or no number. Of a value the first 256 bytes count.
[[nodiscard]] int get_int_param(const char* section, const char* key);
[[nodiscard]] int get_int_param(FILE* file, const char* section, const char* key);
[[nodiscard]] std::uint16_t get_uint16_param(const char* section, const char* key);
[[nodiscard]] std::uint32_t get_uint32_param(const char* section, const char* key);

// 1 for "TRUE" in any case, 0 for anything else ("yes" and "1" too); the default when the value is
// missing or empty.
[[nodiscard]] unsigned char get_bool_param(const char* section, const char* key,
                                           unsigned char defaultValue);
[[nodiscard]] unsigned char get_bool_param(FILE* file, const char* section, const char* key,
                                           unsigned char defaultValue);
