#pragma once

#include <fstream>
#include <gtest/gtest.h>
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

} // namespace Testing
} // namespace Zelmar
