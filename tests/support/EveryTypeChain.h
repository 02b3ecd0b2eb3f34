#pragma once

#include "dsp/Chain.h"
#include "dsp/SignalDetector.h"
#include "tests/support/MemoryAlsaBuffers.h"
#include "tests/support/TemporaryDirectory.h"

#include <glib.h>
#include <memory>
#include <string>
#include <vector>

namespace Zelmar {
namespace Testing {

// tests/data/every-type.xml compiled, with a scratch directory for the files its modules write and its
// host buffers in memory, unmuted. `final` replaces parameters of the file, as "ID KEY" -> value.
class EveryTypeChain
{
public:
    using tSettings = std::vector<std::pair<std::string, std::string>>;

    explicit EveryTypeChain(tSettings const& final = {})
    {
        gchar* text = nullptr;
        g_file_get_contents(TEST_SOURCE_DIR "/data/every-type.xml", &text, nullptr, nullptr);
        std::string config = text;
        g_free(text);
        config.replace(config.find("SCRATCH"), 7, m_scratch.path());
        SignalDetector::setDefaultThresholdDirectory(m_scratch.path() + "/");
        m_config = m_scratch.write("every-type.xml", config);
        m_chain.load(m_config, true);
        SignalDetector::setDefaultThresholdDirectory("/tmp/");
        for (auto const& [place, value] : final) {
            auto const space = place.find(' ');
            m_chain.findModule(place.substr(0, space))->setParameter(place.substr(space + 1), value);
        }
        m_output = attachHostBuffers(m_chain, m_capture, m_playback);
        m_output->setMute(false);
    }

    // One period in; the left and right playback channels out.
    std::vector<tSample> process(std::vector<tSample> const& left, std::vector<tSample> const& right)
    {
        m_capture.getChannel(0).setPeriod(left);
        m_capture.getChannel(1).setPeriod(right);
        m_chain.process();
        std::vector<tSample> out(m_playback.getChannel(0).samples.begin(),
                                 m_playback.getChannel(0).samples.begin() + long(left.size()));
        out.insert(out.end(), m_playback.getChannel(1).samples.begin(),
                   m_playback.getChannel(1).samples.begin() + long(right.size()));
        return out;
    }

    Chain& chain() { return m_chain; }
    std::string const& scratch() const { return m_scratch.path(); }
    std::string const& config() const { return m_config; }

private:
    TemporaryDirectory m_scratch{"every-type-XXXXXX"};
    std::string m_config;
    Chain m_chain{48000};
    MemoryAlsaBuffers m_capture{2};
    MemoryAlsaBuffers m_playback{2};
    std::shared_ptr<OutputStage> m_output;
};

} // namespace Testing
} // namespace Zelmar
