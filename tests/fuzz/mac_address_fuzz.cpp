// MAC addresses: what is read is written back in the format it came in, and read again, the same.
#include <nx/net/CNxMacAddress.h>

#include "Fuzz.h"

void Fuzz(std::string_view input) {
    CNxString text(input.data(), input.size());
    CNxMacAddress address;
    if (address.Set(text) != NX_OK) {
        Require(address.IsZero());
        return;
    }
    text.Tolower();
    bool isOneOfThem = false;
    for (const auto format :
         {CNxMacAddress::COLON, CNxMacAddress::DASH, CNxMacAddress::DOTTED, CNxMacAddress::BARE}) {
        const CNxString written = address.ToString(format);
        CNxMacAddress again;
        Require(again.Set(written) == NX_OK && again == address);
        isOneOfThem = isOneOfThem || written == text;
    }
    Require(isOneOfThem);
}
