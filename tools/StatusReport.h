#pragma once

#include <cstdio>
#include <gio/gio.h>

namespace Zelmar {
namespace Host {

// `orvandeldsp status`: the properties of a live run's host service (an a{sv}) as one aligned block for
// people, or as one JSON object for scripts, its keys the property names in snake case.
class StatusReport
{
public:
    static void print(GVariant* properties, std::FILE* out);
    static void printJson(GVariant* properties, std::FILE* out);
};

} // namespace Host
} // namespace Zelmar
