#include <nx/foundation/has_zero_byte.h>
#include <nx/process/CNxEnvironment.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstring>

namespace {

constexpr const char* c_libraryPath = "LD_LIBRARY_PATH";
constexpr const char* c_folderEnds = ":;";

bool IsName(const CNxString& name) {
    return !name.empty() && name.find('=') == CNxString::npos && !HasZeroByte(name);
}

}  // namespace

CNxEnvironment CNxEnvironment::OfThisProcess() {
    CNxEnvironment copy;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        // A name of one byte at least.
        if (**entry != '\0' && std::strchr(*entry + 1, '=') != nullptr) {
            copy.m_entries.emplace_back(*entry);
        }
    }
    return copy;
}

std::vector<CNxString>::const_iterator CNxEnvironment::Find(const CNxString& name) const {
    return std::find_if(m_entries.begin(), m_entries.end(), [&](const CNxString& entry) {
        return entry.size() > name.size() && entry[name.size()] == '=' &&
               entry.compare(0, name.size(), name) == 0;
    });
}

NxResult CNxEnvironment::Get(const CNxString& name, CNxString& value) const {
    const auto entry = IsName(name) ? Find(name) : m_entries.end();
    if (entry == m_entries.end()) {
        return NX_ERROR_NOT_FOUND;
    }
    value = entry->substr(name.size() + 1);
    return NX_OK;
}

NxResult CNxEnvironment::Set(const CNxString& name, const CNxString& value) {
    if (!IsName(name) || HasZeroByte(value)) {
        return NX_ERROR_INVALID_ARG;
    }
    CNxString text = name + "=" + value;
    const auto entry = Find(name);
    if (entry == m_entries.end()) {
        m_entries.push_back(std::move(text));
    } else {
        m_entries[static_cast<size_t>(entry - m_entries.begin())].swap(text);
    }
    assert(Find(name) != m_entries.end());
    return NX_OK;
}

void CNxEnvironment::Unset(const CNxString& name) {
    const auto entry = IsName(name) ? Find(name) : m_entries.end();
    if (entry != m_entries.end()) {
        m_entries.erase(entry);
    }
}

std::vector<CNxString> CNxEnvironment::GetLibraryPath() const {
    std::vector<CNxString> folders;
    CNxString path;
    if (Get(c_libraryPath, path) != NX_OK || path.empty()) {
        return folders;
    }
    size_t begin = 0;
    for (size_t end = 0; end != CNxString::npos; begin = end + 1) {
        end = path.find_first_of(c_folderEnds, begin);
        folders.push_back(path.substr(begin, end - begin));
    }
    return folders;
}

NxResult CNxEnvironment::AddLibraryPath(const CNxString& folder) {
    if (folder.empty() || folder.find_first_of(c_folderEnds) != CNxString::npos) {
        return NX_ERROR_INVALID_ARG;
    }
    CNxString path = folder;
    for (const CNxString& other : GetLibraryPath()) {
        if (other != folder) {
            path += ":" + other;
        }
    }
    return Set(c_libraryPath, path);
}
