// Base64 (RFC 4648), read strictly: every sequence of bytes has exactly one text, and any other
// text is refused. Any thread may call.
#pragma once

#include <cstddef>

#include <nx/foundation/CNxString.h>
#include <nx/foundation/NxResult.h>

enum class ECnxBase64 {
    STANDARD,  // section 4: "+" and "/", filled up with "=" to a multiple of four
    URL,       // section 5: "-" and "_", never filled up
};

// Throws std::bad_alloc when there is no memory. A null `data` needs size 0.
CNxString cnx_base64_encode(const void* data, size_t size, ECnxBase64 kind = ECnxBase64::STANDARD);

// Puts the bytes into `bytes`, which may be the same object as `text`.
// NX_OK, otherwise `bytes` is unchanged: NX_ERROR_INVALID_ARG for a byte that is not in the
// alphabet (white space and line ends are not), a length that cannot be, missing, superfluous or
// (URL) any
// "=", and bits that are left over and not zero; NX_ERROR_FAILURE without memory.
[[nodiscard]] NxResult cnx_base64_decode(const CNxString& text, CNxString& bytes,
                                         ECnxBase64 kind = ECnxBase64::STANDARD);
