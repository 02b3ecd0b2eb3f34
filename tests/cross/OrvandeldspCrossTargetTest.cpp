// The tool of this build against the same tool built for another target (the x86-64 one, when this is
// the ARM build): fixed point promises the same bits everywhere, so every file they write must be the
// same byte for byte, and so must what they print (meters, detections; -q leaves out the timings).
#include "tests/support/DataFile.h"
#include "tests/support/ToolRun.h"

#include <cmath>
#include <random>
#include <set>

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

class OrvandeldspCrossTargetTest : public ToolTest
{
protected:
    // A run of tests/data/cross-runs.txt, writing PREFIX.wav (and PREFIX.flac).
    ToolResult run(std::string const& program, std::string const& prefix, std::vector<std::string> const& r)
    {
        std::vector<std::string> args{program, "run", "-q", "-c", c_configs + r[1]};
        for (auto const& option : split(r[3], " "))
            args.push_back(option == "{scratch}" ? m_dir : option);
        if (args.back() == "--encode")
            args.push_back(path(prefix + ".flac"));
        args.insert(args.end(), {path(r[2]), path(prefix + ".wav")});
        return runProgram(args);
    }

    void expectSameFile(std::string const& reference, std::string const& built)
    {
        std::string const expected = m_scratch.read(reference);
        EXPECT_FALSE(expected.empty()) << reference;
        EXPECT_TRUE(m_scratch.read(built) == expected) << built << " differs from " << reference;
    }
};

TEST_F(OrvandeldspCrossTargetTest, WritesTheSameBytesAsTheReferenceTool)
{
    g_setenv("ORVANDELDSP_SOUNDS_DIR", GENERATED_SOUNDS_DIR, TRUE);
    writeSound(path("music.wav"), SF_FORMAT_PCM_24, 2, music(48000, 96000));
    writeSound(path("music-44100.wav"), SF_FORMAT_PCM_24, 2, music(44100, 88200), 44100);
    // The detector ignores the first 100000 frames; it hears the music come in after them.
    writeSound(path("line-in.wav"), SF_FORMAT_PCM_16, 2, music(48000, 144000, 110000));
    std::set<std::string> untried = configNames();
    for (auto const& r : readTable("cross-runs.txt")) {
        SCOPED_TRACE(r[0]);
        untried.erase(r[1]);
        std::string const reference = "reference-" + r[0], built = "built-" + r[0];
        ToolResult const expected = run(ORVANDELDSP_REFERENCE_TOOL, reference, r);
        ToolResult const actual = run(ORVANDELDSP_TOOL, built, r);
        ASSERT_EQ(expected.status, 0) << expected.err;
        ASSERT_EQ(actual.status, 0) << actual.err;
        EXPECT_EQ(actual.out, expected.out);
        expectSameFile(reference + ".wav", built + ".wav");
        if (g_str_has_suffix(r[3].c_str(), "--encode"))
            expectSameFile(reference + ".flac", built + ".flac");
    }
    EXPECT_TRUE(untried.empty()) << "a config in configs/ without a run: " << *untried.begin();
}

} // namespace
