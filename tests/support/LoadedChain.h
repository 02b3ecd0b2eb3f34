#pragma once

#include "dsp/Chain.h"
#include "dsp/SignalDetector.h"
#include "tests/support/DataFile.h"
#include "tests/support/MemoryAlsaBuffers.h"
#include "tests/support/TemporaryDirectory.h"

#include <memory>
#include <string>
#include <vector>

namespace Zelmar {
namespace Testing {

// A config of tests/data compiled, with its host buffers in memory, unmuted, and a scratch directory
// that takes the place of "SCRATCH" in the config, for the files its modules write.
class LoadedChain
{
public:
    explicit LoadedChain(std::string const& name)
    {
        std::string config = readDataFile(name);
        if (auto const at = config.find("SCRATCH"); at != std::string::npos)
            config.replace(at, 7, m_scratch.path());
        SignalDetector::setDefaultThresholdDirectory(m_scratch.path() + "/");
        m_config = m_scratch.write(name, config);
        m_chain.load(m_config, true);
        SignalDetector::setDefaultThresholdDirectory("/tmp/");
        m_output = attachHostBuffers(m_chain, capture, playback);
        m_output->setMute(false);
    }

    // One period in; the left and then the right playback channel out.
    std::vector<tSample> process(std::vector<tSample> const& left, std::vector<tSample> const& right)
    {
        capture.getChannel(0).setPeriod(left);
        capture.getChannel(1).setPeriod(right);
        m_chain.process();
        auto const &playedLeft = playback.getChannel(0).samples,
                   &playedRight = playback.getChannel(1).samples;
        std::vector<tSample> out(playedLeft.begin(), playedLeft.begin() + long(left.size()));
        out.insert(out.end(), playedRight.begin(), playedRight.begin() + long(right.size()));
        return out;
    }

    Chain& chain() { return m_chain; }
    OutputStage& output() { return *m_output; }
    std::string const& scratch() const { return m_scratch.path(); }
    std::string const& config() const { return m_config; }

    MemoryAlsaBuffers capture{2}, playback{2};

private:
    TemporaryDirectory m_scratch{"loaded-chain-XXXXXX"};
    std::string m_config;
    Chain m_chain{48000};
    std::shared_ptr<OutputStage> m_output;
};

} // namespace Testing
} // namespace Zelmar
