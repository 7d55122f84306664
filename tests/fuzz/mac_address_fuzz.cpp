// MAC addresses: what is read is written back in the format it came in.
#include <nx/net/CNxMacAddress.h>

#include <cstdlib>

#include "Fuzz.h"

void Fuzz(std::string_view input) {
    CNxString text(input.data(), input.size());
    CNxMacAddress address;
    if (address.Set(text) != NX_OK) {
        Require(address.IsZero());
        return;
    }
    text.Tolower();
    const auto format = text[2] == ':'   ? CNxMacAddress::COLON
                        : text[2] == '-' ? CNxMacAddress::DASH
                        : text[4] == '.' ? CNxMacAddress::DOTTED
                                         : CNxMacAddress::BARE;
    Require(address.ToString(format) == text);
    const CNxString digits = address.ToString(CNxMacAddress::BARE);
    Require(address.GetNumber() == std::strtoull(digits.c_str(), nullptr, 16));
}
