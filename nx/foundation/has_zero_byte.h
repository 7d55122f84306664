// Inside the library only: whether a text would be cut where the system takes it.
#pragma once

#include <nx/foundation/CNxString.h>

inline bool HasZeroByte(const CNxString& text) {
    return text.find('\0') != CNxString::npos;
}
