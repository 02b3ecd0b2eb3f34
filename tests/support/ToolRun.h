#pragma once

// Runs the built `orvandeldsp` tool as a user would, in a scratch directory of the test's own.
#include "tests/support/TemporaryDirectory.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>

namespace Zelmar {
namespace Testing {

struct ToolResult
{
    int status = -1;
    std::string out;
    std::string err;
};

// Runs a program, looked up on PATH, in the test's environment.
inline ToolResult runProgram(std::vector<std::string> const& argv)
{
    std::vector<char*> pointers;
    for (auto const& arg : argv)
        pointers.push_back(const_cast<char*>(arg.c_str()));
    pointers.push_back(nullptr);
    gchar* out = nullptr;
    gchar* err = nullptr;
    gint wait = 0;
    ToolResult result;
    if (!g_spawn_sync(nullptr, pointers.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &out, &err,
                      &wait, nullptr))
        return result;
    // A signal (a crash or an abort) leaves the status at -1, which no test expects.
    if (WIFEXITED(wait))
        result.status = WEXITSTATUS(wait);
    result.out = out;
    result.err = err;
    g_free(out);
    g_free(err);
    return result;
}

inline ToolResult runTool(std::vector<std::string> const& args)
{
    std::vector<std::string> argv{ORVANDELDSP_TOOL};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProgram(argv);
}

// Interleaved stereo with word(frame) on both channels.
template <class F> std::vector<int32_t> stereoWords(size_t frames, F&& word)
{
    std::vector<int32_t> samples;
    for (size_t f = 0; f < frames; ++f)
        samples.insert(samples.end(), 2, word(f));
    return samples;
}

struct Sound
{
    SF_INFO info{};
    std::vector<int32_t> samples; // interleaved, left-justified as libsndfile delivers them
};

inline void writeSound(std::string const& path, int subtype, int channels,
                       std::vector<int32_t> const& samples, int rate = 48000)
{
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | subtype;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    sf_writef_int(file, samples.data(), sf_count_t(samples.size()) / channels);
    sf_close(file);
}

inline Sound readSound(std::string const& path)
{
    Sound sound;
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &sound.info);
    if (!file)
        return sound;
    sound.samples.resize(size_t(sound.info.frames) * size_t(sound.info.channels));
    sf_readf_int(file, sound.samples.data(), sound.info.frames);
    sf_close(file);
    return sound;
}

// A fixture with a scratch directory, emptied and removed after each test.
class ToolTest : public testing::Test
{
protected:
    std::string path(std::string const& name) const { return m_scratch.path(name); }
    bool exists(std::string const& name) const { return g_file_test(path(name).c_str(), G_FILE_TEST_EXISTS); }
    std::string writeConfig(std::string const& name, std::string const& text) const
    {
        return m_scratch.write(name, text);
    }

    TemporaryDirectory m_scratch{"orvandeldsp-tool-XXXXXX"};
    std::string const m_dir = m_scratch.path();
};

} // namespace Testing
} // namespace Zelmar
