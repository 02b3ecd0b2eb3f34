#pragma once

#include "dsp/Export.h"

#include <string>
#include <vector>

namespace Zelmar {

// Every problem of a dsp config file, each with its place where the file gives one: what Chain::load
// would end the process on, throw for or assert on while compiling, and what it would take otherwise
// than the file most likely means (errors), and what it ignores (warnings). Nothing is built and
// nothing is configured, so a host calls it first and gets messages instead of an ended process.
class ORVANDELDSP_EXPORT ChainCheck
{
public:
    struct Problem
    {
        enum Severity
        {
            Error,
            Warning
        };
        Severity severity;
        std::string file;
        unsigned int line = 0; // 0: no place in particular
        unsigned int column = 0;
        std::string message;

        // "FILE:LINE:COLUMN: message", "warning: " before the message of a warning.
        std::string describe() const;
    };

    // In the order of the file; problems without a place first.
    static std::vector<Problem> check(std::string const& path, unsigned int sampleRate);
    static bool hasErrors(std::vector<Problem> const& problems);
};

} // namespace Zelmar
