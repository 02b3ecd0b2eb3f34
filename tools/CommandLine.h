#pragma once

namespace Zelmar {
namespace Host {

// The `orvandeldsp` command: run, check, graph. Returns the exit status: 0 done, 1 an I/O failure,
// 2 a usage mistake or a bad config, each reported as one line on stderr.
class CommandLine
{
public:
    static int run(int argc, char** argv);
};

} // namespace Host
} // namespace Zelmar
