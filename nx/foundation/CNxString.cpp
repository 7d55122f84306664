#include <nx/foundation/CNxString.h>

#include <cctype>
#include <ostream>
#include <stdexcept>

void CNxString::ThrowNull() {
    throw std::logic_error("basic_string::_M_construct null not valid");
}

void CNxString::Tolower() {
    for (char& c : m_data) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
}

std::ostream& operator<<(std::ostream& out, const CNxString& s) {
    return out << s.GetRawData();
}

size_t CNxStringReplace(CNxString& text, const CNxString& from, const CNxString& to) {
    size_t hit = from.empty() ? CNxString::npos : text.find(from);
    if (hit == CNxString::npos) {
        return hit;
    }
    // Built apart: one pass over the text, and `from` and `to` may be `text` itself.
    CNxString replaced;
    size_t begin = 0;
    while (hit != CNxString::npos) {
        replaced.append(text, begin, hit - begin).append(to);
        begin = hit + from.size();
        hit = text.find(from, begin);
    }
    replaced.append(text, begin, CNxString::npos);
    text.swap(replaced);
    return hit;
}
