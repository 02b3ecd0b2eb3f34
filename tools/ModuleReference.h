#pragma once

#include <cstdio>
#include <string>

namespace Zelmar {
namespace Host {

// The module types as a config's author reads them, all from the factory's descriptors: a list, one
// type in full, and the whole config reference in Markdown (docs/config-reference.md).
class ModuleReference
{
public:
    static void printList(std::FILE* out);
    // False for a type the factory does not know.
    static bool printType(std::string const& type, std::FILE* out);
    static void printMarkdown(std::FILE* out);
};

} // namespace Host
} // namespace Zelmar
