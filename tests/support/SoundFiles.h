#pragma once

#include "dsp/Chain.h"
#include "dsp/InputStage.h"
#include "dsp/OutputStage.h"
#include "dsp/RomplerData.h"
#include "dsp/Sounds.h"
#include "sounds/FlacWriter.h"
#include "tests/support/MainLoop.h"
#include "tests/support/MemoryAlsaBuffers.h"
#include "tests/support/TemporaryDirectory.h"

#include <chrono>
#include <glib.h>
#include <glib/gstdio.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace Zelmar {
namespace Testing {

// A private sounds folder for one test: relative sound names resolve into it while it exists.
class TemporarySoundsDirectory : public TemporaryDirectory
{
public:
    TemporarySoundsDirectory() : TemporaryDirectory("orvandeldsp-sounds-XXXXXX")
    {
        RomplerData::setSoundsDirectory(path().c_str());
    }
    ~TemporarySoundsDirectory() { RomplerData::setSoundsDirectory(""); }

    std::string write(std::string const& name, std::vector<int16_t> const& interleavedStereo)
    {
        std::string error;
        EXPECT_TRUE(SoundGeneration::writeFlacFile(path(name), interleavedStereo, 44100, "", error)) << error;
        return path(name);
    }
};

// Left runs up from `first`, right mirrors it below zero, so channel mix-ups and sign errors show.
inline std::vector<int16_t> makeRamp(unsigned int frames, int first = -1000, int slope = 7)
{
    std::vector<int16_t> samples(2 * frames);
    for (unsigned int i = 0; i < frames; ++i) {
        samples[2 * i] = static_cast<int16_t>(first + slope * int(i));
        samples[2 * i + 1] = static_cast<int16_t>(-(first + slope * int(i)) - 1);
    }
    return samples;
}

inline std::vector<int16_t> makeConstant(unsigned int frames, int16_t value)
{
    return std::vector<int16_t>(2 * frames, value);
}

inline bool waitUntilLoaded(RomplerData const& data)
{
    for (int i = 0; i < 5000 && !data.isLoaded(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return data.isLoaded();
}

// input -> system-sounds -> output, fed with constant music, so the duck shows as the output level.
class SoundsRig
{
public:
    explicit SoundsRig(unsigned int sampleRate, tSample music = tSample(0.5))
        : m_chain(sampleRate), m_capture(2), m_playback(2)
    {
        m_chain.addModule("input", "in");
        m_sounds = std::dynamic_pointer_cast<Sounds>(m_chain.addModule("sounds", "system-sounds"));
        m_sounds->setParameters(Parameters(), sampleRate);
        m_output = std::dynamic_pointer_cast<OutputStage>(m_chain.addModule("output", "out"));
        m_output->setParameters(Parameters{{"interleave-pattern", "01"}}, sampleRate);
        m_chain.pullWire("system-sounds", "in");
        m_chain.pullWire("out", "system-sounds");
        m_chain.compile();
        std::dynamic_pointer_cast<InputStage>(m_chain.findModule("in"))->setInput(&m_capture);
        m_output->setOutput(&m_playback);
        m_music = music;
    }

    // Processes `frames` frames in periods of `period` and appends the sounds module's left output.
    void run(unsigned int frames, unsigned int period = 500)
    {
        for (unsigned int done = 0; done < frames; done += period) {
            unsigned int const n = std::min(period, frames - done);
            m_capture.getChannel(0).setPeriod(std::vector<tSample>(n, m_music));
            m_capture.getChannel(1).setPeriod(std::vector<tSample>(n, m_music));
            m_chain.process();
            auto const& out = *m_sounds->getOutPortBuffer(0);
            m_left.insert(m_left.end(), out.getRawData(), out.getRawData() + n);
        }
    }

    RomplerData& load(SystemSound sound)
    {
        auto data = m_sounds->getRomplerDataForSoundType(sound);
        EXPECT_TRUE(waitUntilLoaded(*data));
        return *data;
    }

    Chain m_chain;
    Testing::MemoryAlsaBuffers m_capture, m_playback;
    std::shared_ptr<Sounds> m_sounds;
    std::shared_ptr<OutputStage> m_output;
    tSample m_music;
    std::vector<tSample> m_left;
};

} // namespace Testing
} // namespace Zelmar
