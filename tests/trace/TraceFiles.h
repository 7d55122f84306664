// What the tests of trace files share: the parts of a file.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "../support/TempFolder.h"

inline const std::string MARKER =
    "************************* Current Trace Point *************************\n\n";
constexpr size_t HEADER_SIZE = 32;

using Texts = std::vector<std::string>;

inline std::string ReadWhole(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline std::string HeaderOf(size_t offset) {
    std::string text = std::to_string(offset);
    return text + std::string(HEADER_SIZE - 1 - text.size(), ' ') + "\n";
}

// Every digit a '9': what two stamps have in common.
inline std::string Masked(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; }, '9');
    return text;
}

// The texts of the records up to the marker; a failure for a file that is not whole. A record is
// "[MM/DD/YYYY hh:mm:ss.mmm pid=P tid=T] " and any text.
inline Texts TextsIn(const std::string& path) {
    SCOPED_TRACE(path);
    const std::string bytes = ReadWhole(path);
    const size_t offset = std::strtoul(bytes.c_str(), nullptr, 10);
    EXPECT_EQ(bytes.substr(0, HEADER_SIZE), HeaderOf(offset));
    Texts texts;
    if (offset < HEADER_SIZE || offset > bytes.size()) {
        ADD_FAILURE() << bytes.size() << " bytes point to " << offset;
        return texts;
    }
    if (offset > HEADER_SIZE) {
        EXPECT_EQ(bytes.substr(offset, MARKER.size()), MARKER);
        EXPECT_EQ(bytes[offset - 1], '\n');
    }
    const std::string form = "[99/99/9999 99:99:99.999 pid=";
    std::istringstream lines(bytes.substr(HEADER_SIZE, offset - HEADER_SIZE));
    for (std::string line; std::getline(lines, line);) {
        int end = 0;
        EXPECT_EQ(Masked(line.substr(0, form.size())), form);
        EXPECT_EQ(std::sscanf(line.c_str() + form.size(), "%*d tid=%*d] %n", &end), 0) << line;
        EXPECT_GT(end, 0) << line;
        texts.push_back(line.substr(line.find("] ") + 2));
    }
    return texts;
}
