#pragma once

#include <string>

namespace Zelmar {
namespace Host {

// The detector learns its threshold into a file; without a given directory it goes into one made
// for this run and removed after it, so runs neither read nor leave /tmp files. Must exist before
// the chain is built: a detector reads its threshold when it is made.
class ThresholdDirectory
{
public:
    explicit ThresholdDirectory(std::string const& given);
    ~ThresholdDirectory();
    ThresholdDirectory(ThresholdDirectory const&) = delete;
    ThresholdDirectory& operator=(ThresholdDirectory const&) = delete;

private:
    std::string m_temporary;
};

} // namespace Host
} // namespace Zelmar
