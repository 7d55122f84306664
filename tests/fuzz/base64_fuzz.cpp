// Base64: bytes come back from their text, and a text that can be read is the only one of its
// bytes.
#include <nx/process/base64.h>

#include "Fuzz.h"

void Fuzz(std::string_view input) {
    const CNxString asText(input.data(), input.size());
    for (const ECnxBase64 kind : {ECnxBase64::STANDARD, ECnxBase64::URL}) {
        CNxString bytes = "before";
        const CNxString text = cnx_base64_encode(input.data(), input.size(), kind);
        Require(cnx_base64_decode(text, bytes, kind) == NX_OK && bytes == asText);
        bytes = "before";
        if (cnx_base64_decode(asText, bytes, kind) == NX_OK) {
            Require(cnx_base64_encode(bytes.data(), bytes.size(), kind) == asText);
        } else {
            Require(bytes == "before");
        }
    }
}
