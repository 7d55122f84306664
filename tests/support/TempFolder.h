// A folder of the test's own, gone with the object, and short ways to fill and read files.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class CTempFolder {
public:
    CTempFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "nxtest.XXXXXX").string();
        m_path = mkdtemp(name.data());
    }
    ~CTempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;

    std::string Path(const std::string& name = "") const { return (m_path / name).string(); }

    // Makes the file with that content, and gives its path.
    std::string Put(const std::string& name, const std::string& content) const {
        std::ofstream(m_path / name, std::ios::binary) << content;
        return Path(name);
    }

    std::string Get(const std::string& name) const {
        std::ifstream in(m_path / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

private:
    std::filesystem::path m_path;
};

// What a shell command prints to standard output, and its exit status if asked for.
inline std::string OutputOf(const std::string& command, int* status = nullptr) {
    FILE* const pipe = popen(command.c_str(), "re");
    std::string output;
    for (int c = 0; pipe != nullptr && (c = std::fgetc(pipe)) != EOF;) {
        output += static_cast<char>(c);
    }
    const int result = pipe == nullptr ? -1 : pclose(pipe);
    if (status != nullptr) {
        *status = result < 0 ? result : (result >> 8) & 0xFF;
    }
    return output;
}
