// Resolving environment references: always NX_OK, and a text without one comes back as it is.
#include <nx/foundation/CNxUtils.h>

#include "Fuzz.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    setenv("A", "${B}", 1);
    setenv("B", "value of B", 1);
    setenv("EMPTY", "", 1);
    return 0;
}

void Fuzz(std::string_view input) {
    const CNxString in(input.data(), input.size());
    CNxString out;
    CNxString same = in;
    const bool isOk = ResolveStringEnv(in, out) == NX_OK && ResolveStringEnv(same, same) == NX_OK;
    const bool hasReference = in.find('$') != CNxString::npos;
    Require(isOk && out == same && (hasReference || out == in));
}
