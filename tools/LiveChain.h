#pragma once

#include "dsp/DriftCompensator.h"

#include <memory>
#include <string>
#include <vector>

namespace Zelmar {

class Chain;
class InputStage;
class Meter;
class OutputStage;

namespace Host {

// A dsp config loaded for a live run, with what the audio thread needs of it: its input and output
// stages and, when capture and playback run on clocks of their own, the drift compensator that the
// config names by the id of its time stretcher. Made and destroyed on the main thread, played on the
// audio thread.
class LiveChain
{
public:
    struct Needs
    {
        unsigned int sampleRate = 48000;
        // The playback device's channels; 0 before it is opened, when the chain decides them.
        unsigned int playbackChannels = 0;
        // The input is a capture device, whose clock drifts against the playback's.
        bool twoClocks = false;
        // Every module is timed (`--profile`), in a reloaded chain too.
        bool profile = false;
    };

    // Throws ToolError (a config mistake) for a config that fails to load, fails the checks `check`
    // makes, or needs another rate or channel count. With two clocks and no time stretcher it warns
    // on stderr that the drift between them is not compensated.
    LiveChain(std::string const& config, Needs const& needs);
    ~LiveChain();

    LiveChain(LiveChain const&) = delete;
    LiveChain& operator=(LiveChain const&) = delete;

    std::string const& getConfig() const { return m_config; }
    Chain& getChain() const { return *m_chain; }
    InputStage& getInput() const { return *m_input; }
    OutputStage& getOutput() const { return *m_output; }
    // The id of the stretcher the compensator drives; "" without a compensator.
    std::string const& getCompensatorName() const { return m_compensatorName; }

    bool compensatesDrift() const { return m_compensator != nullptr; }
    // The chain's meter modules, whose peaks any thread may take.
    std::vector<Meter*> const& getMeters() const { return m_meters; }
    // Audio thread, once a period: reports how far the latency has moved since the devices started.
    // Returns the correction ordered for the next period: +1 a frame dropped, -1 one inserted, 0 none.
    int compensate(int latencyDelta)
    {
        return m_compensator ? m_compensator->setFrameDelta(latencyDelta) : 0;
    }

private:
    void checkRate(unsigned int sampleRate) const;
    void checkChannels(unsigned int playbackChannels) const;
    void createCompensator();

    std::string m_config;
    std::unique_ptr<Chain> m_chain;
    InputStage* m_input;
    OutputStage* m_output;
    std::unique_ptr<DriftCompensator> m_compensator;
    std::string m_compensatorName;
    std::vector<Meter*> m_meters;
};

} // namespace Host
} // namespace Zelmar
