// The tool of this build against the same tool built for another target (the x86-64 one, when this is
// the ARM build): fixed point promises the same bits everywhere, so every file they write must be the
// same byte for byte, and so must what they print (meters, detections; -q leaves out the timings).
#include "tests/support/ToolRun.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace Zelmar::Testing;

std::string const c_configs = PROJECT_SOURCE_DIR "/configs/";

// A sweep from 30 Hz to 18 kHz on the left and noise on the right, both at full scale, so that the
// filters' sums wrap and the limiter and clip guard have work; silent for the first `silentFrames`.
std::vector<int32_t> music(int rate, size_t frames, size_t silentFrames = 0)
{
    std::mt19937 random(11);
    std::uniform_int_distribution<int32_t> noise(-0x800000, 0x7fffff);
    std::vector<int32_t> samples;
    double phase = 0.0;
    for (size_t f = 0; f < frames; ++f) {
        phase += 2.0 * M_PI * 30.0 * std::pow(600.0, double(f) / double(frames)) / rate;
        bool const silent = f < silentFrames;
        samples.push_back(silent ? 0 : int32_t(std::lround(std::sin(phase) * 0x7fffff)) * 256);
        samples.push_back(silent ? 0 : noise(random) * 256);
    }
    return samples;
}

std::set<std::string> configNames()
{
    std::set<std::string> names;
    if (GDir* dir = g_dir_open(c_configs.c_str(), 0, nullptr)) {
        while (char const* name = g_dir_read_name(dir))
            if (g_str_has_suffix(name, ".xml"))
                names.insert(name);
        g_dir_close(dir);
    }
    return names;
}

struct RunCase
{
    char const* name;
    char const* config;
    char const* input;
    std::vector<std::string> options;
    bool writesFlac;
};

class OrvandeldspCrossTargetTest : public ToolTest
{
protected:
    ToolResult run(std::string const& program, std::string const& prefix, RunCase const& r)
    {
        std::vector<std::string> args{program, "run", "-q", "-c", c_configs + r.config};
        args.insert(args.end(), r.options.begin(), r.options.end());
        if (r.writesFlac)
            args.insert(args.end(), {"--encode", path(prefix + ".flac")});
        args.insert(args.end(), {path(r.input), path(prefix + ".wav")});
        return runProgram(args);
    }

    void expectSameFile(std::string const& reference, std::string const& built)
    {
        std::string const expected = m_scratch.read(reference), actual = m_scratch.read(built);
        EXPECT_FALSE(expected.empty()) << reference;
        EXPECT_TRUE(actual == expected)
            << built << " differs from " << reference << " from byte "
            << std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end()).first -
                   expected.begin();
    }
};

TEST_F(OrvandeldspCrossTargetTest, WritesTheSameBytesAsTheReferenceTool)
{
    g_setenv("ORVANDELDSP_SOUNDS_DIR", GENERATED_SOUNDS_DIR, TRUE);
    writeSound(path("music.wav"), SF_FORMAT_PCM_24, 2, music(48000, 96000));
    writeSound(path("music-44100.wav"), SF_FORMAT_PCM_24, 2, music(44100, 88200), 44100);
    // The detector ignores the first 100000 frames; it hears the music come in after them.
    writeSound(path("line-in.wav"), SF_FORMAT_PCM_16, 2, music(48000, 144000, 110000));
    RunCase const runs[] = {
        {"default", "default.xml", "music.wav", {"--meters"}, false},
        {"seven-peaks", "seven-peaks.xml", "music.wav", {"--format", "s16", "--period", "441"}, false},
        {"swap-channels", "swap-channels.xml", "music.wav", {"--format", "s32"}, false},
        {"left-to-both", "left-to-both.xml", "music.wav", {"--meters", "--period", "441"}, false},
        {"stereo-meters", "stereo-meters.xml", "music.wav", {"--meters", "--format", "s16"}, false},
        {"sounds", "sounds.xml", "music.wav", {"--sound", "9@0.3", "--format", "s32"}, false},
        {"resample", "resample-44100.xml", "music-44100.wav", {"--rate", "48000", "--period", "441"}, false},
        {"drift-fast", "drift.xml", "music.wav", {"--drift", "400", "--period", "441"}, false},
        {"drift-slow", "drift.xml", "music.wav", {"--drift", "-400", "--format", "s16"}, false},
        {"detect", "line-in.xml", "line-in.wav", {"--detect", "--threshold-dir", m_dir}, false},
        {"encode", "line-in.xml", "music.wav", {"--period", "441"}, true},
        {"live-line-in", "live-line-in.xml", "music.wav", {"--meters", "--format", "s16"}, false},
        {"ten-band-eq", "ten-band-eq.xml", "music.wav", {"--period", "441"}, false},
        {"pass-through", "pass-through.xml", "music.wav", {"--format", "s32"}, false},
    };
    std::set<std::string> untried = configNames();
    for (auto const& r : runs) {
        SCOPED_TRACE(r.name);
        untried.erase(r.config);
        std::string const reference = std::string("reference-") + r.name,
                          built = std::string("built-") + r.name;
        ToolResult const expected = run(ORVANDELDSP_REFERENCE_TOOL, reference, r);
        ToolResult const actual = run(ORVANDELDSP_TOOL, built, r);
        ASSERT_EQ(expected.status, 0) << expected.err;
        ASSERT_EQ(actual.status, 0) << actual.err;
        EXPECT_EQ(actual.out, expected.out);
        expectSameFile(reference + ".wav", built + ".wav");
        if (r.writesFlac)
            expectSameFile(reference + ".flac", built + ".flac");
    }
    EXPECT_TRUE(untried.empty()) << "a config in configs/ without a run: " << *untried.begin();
}

} // namespace
