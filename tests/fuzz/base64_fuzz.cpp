// Base64: bytes come back from their text, and a text that can be read is the only one of its
// bytes.
#include <nx/process/base64.h>

#include "FuzzFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const CNxString input(reinterpret_cast<const char*>(data), size);
    for (const ECnxBase64 kind : {ECnxBase64::STANDARD, ECnxBase64::URL}) {
        CNxString bytes = "before";
        const CNxString text = cnx_base64_encode(data, size, kind);
        Require(cnx_base64_decode(text, bytes, kind) == NX_OK && bytes == input);
        bytes = "before";
        if (cnx_base64_decode(input, bytes, kind) == NX_OK) {
            Require(cnx_base64_encode(bytes.data(), bytes.size(), kind) == input);
        } else {
            Require(bytes == "before");
        }
    }
    return 0;
}
