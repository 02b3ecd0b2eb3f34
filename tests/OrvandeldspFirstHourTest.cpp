// What a user meets in a first hour with the tool: output types, standard output, inputs it must not
// destroy or half read.
#include "support/ToolRun.h"

#include <algorithm>
#include <string>
#include <vector>

namespace {

using namespace Zelmar::Testing;
using OrvandeldspFirstHourTest = ToolTest;

std::string const c_passthrough = TEST_SOURCE_DIR "/data/passthrough.xml";

std::vector<int32_t> twentyFourBitWords(size_t count)
{
    std::vector<int32_t> words;
    uint32_t state = 7;
    while (words.size() < count) {
        state = state * 1664525u + 1013904223u;
        words.push_back(int32_t(state & 0xFFFFFF00u));
    }
    return words;
}

} // namespace

TEST_F(OrvandeldspFirstHourTest, FilesFollowTheirNamesAndTheInputIsNeverLostOrCut)
{
    auto const input = twentyFourBitWords(2 * 3000);
    writeSound(path("in.wav"), SF_FORMAT_PCM_24, 2, input);
    writeSound(path("empty.wav"), SF_FORMAT_PCM_16, 2, {});
    writeSound(path("eight.wav"), SF_FORMAT_PCM_U8, 1, {0x01000000, -0x02000000});
    std::vector<int32_t> const mono{0,         1 << 16,     -(1 << 16),   32767 << 16,
                                    INT32_MIN, 12345 << 16, -(4321 << 16)};
    writeSound(path("mono.wav"), SF_FORMAT_PCM_16, 1, mono);
    writeSound(path("stereo.wav"), SF_FORMAT_PCM_24, 2, {0x100, 0x200, -0x300, 0x400});
    // The header still promises 3000 frames; the data stops after 1500.
    std::string const whole = m_scratch.read("in.wav");
    m_scratch.write("cut.wav", whole.substr(0, whole.size() - 1500 * 6));

    struct Case
    {
        std::vector<std::string> args; // after "run -q -c passthrough.xml"; the output last
        int format;                    // the output's type and samples (none: not compared)
        std::vector<int32_t> samples;
        std::string message; // what stderr holds, all of it
    };
    std::vector<Case> const cases{
        {{"in.wav", "out.flac"}, SF_FORMAT_FLAC | SF_FORMAT_PCM_24, input, ""},
        {{"in.wav", "out.aiff"}, SF_FORMAT_AIFF | SF_FORMAT_PCM_24, input, ""},
        {{"in.wav", "out.caf"}, SF_FORMAT_CAF | SF_FORMAT_PCM_24, input, ""},
        {{"--type", "flac", "--format", "s16", "in.wav", "out.x"}, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, {}, ""},
        {{"eight.wav", "out.wav"}, SF_FORMAT_WAV | SF_FORMAT_PCM_16, {}, ""},
        // Mono feeds both channels, and the output keeps the input's depth.
        {{"mono.wav", "out.wav"},
         SF_FORMAT_WAV | SF_FORMAT_PCM_16,
         stereoWords(7, [&](size_t f) { return mono[f]; }),
         ""},
        {{"-c", PROJECT_SOURCE_DIR "/configs/swap-channels.xml", "stereo.wav", "out.wav"},
         SF_FORMAT_WAV | SF_FORMAT_PCM_24,
         {0x200, 0x100, 0x400, -0x300},
         ""},
        {{"cut.wav", "out.wav"},
         SF_FORMAT_WAV | SF_FORMAT_PCM_24,
         {},
         "orvandeldsp: warning: input " + path("cut.wav") +
             ": its header promises 3000 frames, but the file holds 1500; going on with those\n"},
        {{"empty.wav", "out.wav"},
         SF_FORMAT_WAV | SF_FORMAT_PCM_16,
         {},
         "orvandeldsp: warning: input " + path("empty.wav") + " holds no audio frames, only a header\n"},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.args[c.args.size() - 2]);
        std::vector<std::string> args{"run", "-q", "-c", c_passthrough};
        for (auto const& arg : c.args)
            args.push_back(arg.find('.') != std::string::npos && arg[0] != '/' ? path(arg) : arg);
        auto const result = runTool(args);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, c.message);
        Sound const output = readSound(args.back());
        EXPECT_EQ(output.info.format, c.format);
        if (!c.samples.empty()) {
            EXPECT_EQ(output.samples, c.samples);
        }
    }
    EXPECT_EQ(m_scratch.read("in.wav"), whole) << "the input is intact";
    EXPECT_EQ(readSound(path("out.wav")).samples.size(), 0u) << "the empty input's result";

    // Streamed through a pipe: the FLAC stream on standard output, the summary on stderr. A stream's
    // header leaves the length open, which libsndfile reads as no frames; flac decodes it.
    std::string const pipeline = std::string(ORVANDELDSP_TOOL) + " run -c " + c_passthrough + " -t flac " +
                                 path("in.wav") + " - 2>" + path("summary.txt") + " | cat >" +
                                 path("streamed.flac");
    EXPECT_EQ(runProgram({"bash", "-c", pipeline}).status, 0);
    EXPECT_EQ(m_scratch.read("summary.txt").rfind("orvandeldsp: 3000 frames in, 3000 out", 0), 0u);
    EXPECT_EQ(runProgram({"flac", "-d", "-s", "-o", path("streamed.wav"), path("streamed.flac")}).status, 0);
    EXPECT_EQ(readSound(path("streamed.wav")).samples, input);
}
