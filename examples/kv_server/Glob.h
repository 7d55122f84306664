// Patterns of key names.
#pragma once

#include <string_view>

namespace kv_server {

// Whether the text matches as a whole: '*' any bytes, '?' one byte, [abc], [a-z] and [^a] one of
// (none of) these, '\' takes the next byte literally. Bytes, no locale; takes at most the product
// of the two sizes in steps, unlike fnmatch(3), which a hostile pattern keeps busy for ever.
bool MatchesGlob(std::string_view pattern, std::string_view text);

}  // namespace kv_server
