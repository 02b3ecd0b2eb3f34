#pragma once

#include <sndfile.h>
#include <string>

namespace Zelmar {
namespace Host {

// Something a run does besides moving the file through the chain (simulating drift, reporting the
// detector, ...): it sees every period go by and may add to the summary line.
class RunFeature
{
public:
    virtual ~RunFeature() = default;

    virtual void beforePeriod() {}
    // Counts so far: frames taken from the input file, frames written to the output file.
    virtual void afterPeriod(sf_count_t framesIn, sf_count_t framesOut) = 0;
    // After the last period, before the output file is committed.
    virtual void finish() {}
    // Appended to the summary line, starting with ", "; empty when there is nothing to say.
    virtual std::string describeResult() const = 0;
};

} // namespace Host
} // namespace Zelmar
