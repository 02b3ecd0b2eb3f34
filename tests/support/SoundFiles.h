#pragma once

#include "dsp/RomplerData.h"
#include "sounds/FlacWriter.h"
#include "tests/support/MainLoop.h"

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
class TemporarySoundsDirectory
{
public:
    TemporarySoundsDirectory() : m_path(g_dir_make_tmp("orvandeldsp-sounds-XXXXXX", nullptr))
    {
        RomplerData::setSoundsDirectory(m_path.c_str());
    }
    ~TemporarySoundsDirectory()
    {
        RomplerData::setSoundsDirectory("");
        for (auto const& file : m_files)
            g_remove(file.c_str());
        g_rmdir(m_path.c_str());
    }

    std::string write(std::string const& name, std::vector<int16_t> const& interleavedStereo)
    {
        std::string const file = m_path + "/" + name;
        std::string error;
        EXPECT_TRUE(SoundGeneration::writeFlacFile(file, interleavedStereo, 44100, "", error)) << error;
        m_files.push_back(file);
        return file;
    }
    std::string const& getPath() const { return m_path; }

private:
    std::string m_path;
    std::vector<std::string> m_files;
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

} // namespace Testing
} // namespace Zelmar
