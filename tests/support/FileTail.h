#pragma once

#include <fstream>
#include <string>

namespace Zelmar {
namespace Testing {

// Reads what has been appended to a file since the last read; a missing file reads as empty.
class FileTail
{
public:
    explicit FileTail(std::string path) : m_path(std::move(path)) {}

    std::string readNew()
    {
        std::ifstream file(m_path, std::ios::binary);
        if (!file)
            return {};
        file.seekg(static_cast<std::streamoff>(m_offset));
        std::string const text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        m_offset += text.size();
        return text;
    }

private:
    std::string m_path;
    std::string::size_type m_offset = 0;
};

} // namespace Testing
} // namespace Zelmar
