#pragma once

#include "dsp/FixedPoint.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace Zelmar {
namespace Testing {

// `text` cut at every `separator`, each piece without the blanks around it.
inline std::vector<std::string> split(std::string const& text, std::string const& separator)
{
    std::vector<std::string> pieces;
    for (size_t start = 0, end = 0; end != std::string::npos; start = end + separator.size()) {
        end = text.find(separator, start);
        std::string piece = text.substr(start, end == std::string::npos ? end : end - start);
        piece.erase(0, piece.find_first_not_of(" \t"));
        piece.erase(piece.find_last_not_of(" \t") + 1);
        pieces.push_back(piece);
    }
    return pieces;
}

// A file of tests/data, whole.
inline std::string readDataFile(std::string const& name)
{
    std::ifstream file(std::string(TEST_SOURCE_DIR "/data/") + name);
    EXPECT_TRUE(file.is_open()) << name;
    return {std::istreambuf_iterator<char>(file), {}};
}

// The rows of a table in tests/data: fields separated by " | "; blank lines and "#" comments skipped.
inline std::vector<std::vector<std::string>> readTable(std::string const& name)
{
    std::ifstream file(std::string(TEST_SOURCE_DIR "/data/") + name);
    EXPECT_TRUE(file.is_open()) << name;
    std::vector<std::vector<std::string>> rows;
    for (std::string line; std::getline(file, line);)
        if (!line.empty() && line[0] != '#')
            rows.push_back(split(line, " | "));
    return rows;
}

// Samples as the tables write them: a decimal value ("0.5"), a raw word ("r-3", "r0x7FFFFFFF") or a raw
// ramp ("r1..100"), each but the ramp optionally repeated ("*N"), separated by blanks.
inline std::vector<tSample> samplesFromText(std::string const& text)
{
    std::vector<tSample> out;
    std::istringstream tokens(text);
    for (std::string token; tokens >> token;) {
        auto const star = token.find('*');
        int const times = star == std::string::npos ? 1 : std::stoi(token.substr(star + 1));
        token = token.substr(0, star);
        auto const range = token.find("..");
        if (range != std::string::npos) {
            for (long v = std::stol(token.substr(1, range - 1)); v <= std::stol(token.substr(range + 2)); ++v)
                out.push_back(tSample(int32_t(v)));
        } else {
            out.insert(out.end(), times,
                       token[0] == 'r' ? tSample(int32_t(std::stoll(token.substr(1), nullptr, 0)))
                                       : tSample(std::stod(token)));
        }
    }
    return out;
}

} // namespace Testing
} // namespace Zelmar
