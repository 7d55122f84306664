// What the tests of trace files share: a scratch folder and the parts of a file.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

inline const std::string MARKER =
    "************************* Current Trace Point *************************\n\n";
constexpr size_t HEADER_SIZE = 32;

inline std::string ReadWhole(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline std::string HeaderOf(size_t offset) {
    std::string text = std::to_string(offset);
    return text + std::string(HEADER_SIZE - 1 - text.size(), ' ') + "\n";
}

// "[MM/DD/YYYY hh:mm:ss.mmm pid=P tid=T] " and any text; '9' in the form is any digit.
inline bool IsRecord(const std::string& line) {
    static const std::string s_form = "[99/99/9999 99:99:99.999 pid=";
    for (size_t i = 0; i < s_form.size(); ++i) {
        const bool isDigit = i < line.size() && line[i] >= '0' && line[i] <= '9';
        if (i >= line.size() || (s_form[i] == '9' ? !isDigit : line[i] != s_form[i])) {
            return false;
        }
    }
    int pid = 0;
    int tid = 0;
    int end = 0;
    return std::sscanf(line.c_str() + s_form.size(), "%d tid=%d] %n", &pid, &tid, &end) == 2 &&
           end > 0;
}

// The texts of the records up to the marker; a failure for a file that is not whole. A writer that
// `wasKilled` may have been replacing the marker by its next record.
inline std::vector<std::string> TextsOf(const std::string& path, bool wasKilled = false) {
    const std::string bytes = ReadWhole(path);
    const size_t offset = std::strtoul(bytes.c_str(), nullptr, 10);
    EXPECT_EQ(bytes.substr(0, HEADER_SIZE), HeaderOf(offset)) << path;
    std::vector<std::string> texts;
    if (offset < HEADER_SIZE || offset > bytes.size()) {
        ADD_FAILURE() << path << " points to " << offset;
        return texts;
    }
    if (offset > HEADER_SIZE && !wasKilled) {
        EXPECT_EQ(bytes.substr(offset, MARKER.size()), MARKER) << path;
        EXPECT_EQ(bytes[offset - 1], '\n') << path;
    }
    std::istringstream lines(bytes.substr(HEADER_SIZE, offset - HEADER_SIZE));
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(IsRecord(line)) << path << ": " << line;
        texts.push_back(line.substr(line.find("] ") + 2));
    }
    return texts;
}

class CScratchFolder : public testing::Test {
protected:
    CScratchFolder() {
        char path[] = "/tmp/nxtraceXXXXXX";
        m_folder = mkdtemp(path);
    }
    ~CScratchFolder() override { std::filesystem::remove_all(m_folder); }

    std::string m_folder;
};
