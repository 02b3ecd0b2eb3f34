// Runs the built `orvandeldsp` tool as a user would and checks its files, messages and exit statuses: output
// types, standard output, inputs it must not destroy or half read, and where `run --profile` says the time
// went, without touching the sound; the run options that drive library parts a live host drives (--encode
// and --sound); and `response`, its curves against ones computed apart from the chain.
#include "dsp/BiQuadSection.h"
#include "support/DataFile.h"
#include "support/ScopedVariable.h"
#include "support/ToolRun.h"

#include "dsp/ModuleFactory.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <fstream>
#include <unistd.h>

namespace {

using namespace Zelmar;
using namespace Zelmar::Testing;

// Interleaved stereo, the same tone on both channels, left-justified 24-bit words.
std::vector<int32_t> stereoSine(double frequency, double level, int rate, size_t frames)
{
    return stereoWords(frames, [&](size_t f) {
        return int32_t(std::lround(level * std::sin(2.0 * M_PI * frequency * double(f) / rate) * 8388607.0)) *
               256;
    });
}

int64_t largestStep(std::vector<int32_t> const& interleaved, int channels)
{
    int64_t largest = 0;
    for (size_t i = size_t(channels); i < interleaved.size(); ++i)
        largest = std::max<int64_t>(largest,
                                    std::llabs(int64_t(interleaved[i]) - interleaved[i - size_t(channels)]));
    return largest;
}

// What a pass-through chain must deliver for a 32-bit input word, read back left-justified: the word
// becomes a sample with 27 fraction bits (4 dropped bits floored), then each format rounds half up and
// clips to its full scale.
int32_t expectedThroughFormat(int32_t word, int bits)
{
    int64_t const sample = int64_t(word) >> 4;
    if (bits == 32)
        return int32_t(sample * 16);
    int const dropped = 28 - bits;
    int64_t const limit = int64_t(1) << (bits - 1);
    int64_t const value = std::clamp((sample + (int64_t(1) << (dropped - 1))) >> dropped, -limit, limit - 1);
    return int32_t(value * (int64_t(1) << (32 - bits)));
}

std::vector<int32_t> testWords(size_t frames)
{
    // Full-scale edges and rounding boundaries first, then a pseudo-random stretch across many periods.
    std::vector<int32_t> words{
        0,    INT32_MAX, INT32_MIN, 0x7FFF8000, 0x7FFFFFF0,  0x00008000, 0x00007FFF, -0x8000, -0x8001, 0x80,
        0x7F, -0x80,     -0x81,     0x12345678, -0x12345678, 15,         -1,         16,      -16};
    uint32_t state = 12345;
    while (words.size() < frames) {
        state = state * 1664525u + 1013904223u;
        words.push_back(int32_t(state));
    }
    return words;
}

// The test words cut to the 24 bits every output type holds, as libsndfile left-justifies them.
std::vector<int32_t> twentyFourBitWords(size_t count)
{
    auto words = testWords(count);
    for (auto& word : words)
        word = int32_t(uint32_t(word) & 0xFFFFFF00u);
    return words;
}

// The CSV's lines, the header first, and the numbers of each line after it.
std::pair<std::vector<std::string>, std::vector<std::vector<double>>> parseCsv(std::string const& text)
{
    auto lines = split(text.substr(0, text.size() - 1), "\n");
    std::vector<std::vector<double>> rows;
    for (size_t i = 1; i < lines.size(); ++i) {
        rows.emplace_back();
        for (auto const& field : split(lines[i], ","))
            rows.back().push_back(g_ascii_strtod(field.c_str(), nullptr));
    }
    return {lines, rows};
}

struct Section
{
    char const* type;
    double frequency, q, gainDb;
};

// In double from the quantised coefficients: the cascade's gain is the product of the sections'.
std::complex<double> cascadeGain(std::vector<Section> const& sections, double rate, double frequency)
{
    std::complex<double> const z1 = std::polar(1.0, -2.0 * M_PI * frequency / rate);
    std::complex<double> gain = 1.0;
    for (auto const& s : sections) {
        BiQuadSection c;
        c.design(tBiQuadDesign::translateType(s.type), rate, s.frequency, s.q, s.gainDb);
        gain *= (c.b0.toDouble() + z1 * (c.b1.toDouble() + z1 * c.b2.toDouble())) /
                (1.0 + z1 * (c.a1.toDouble() + z1 * c.a2.toDouble()));
    }
    return gain;
}

class OrvandeldspToolTest : public ToolTest
{
protected:
    // A live stream's header leaves the length open, which libsndfile reads as no frames; flac decodes it.
    Sound decodedFlac(std::string const& name) const
    {
        EXPECT_EQ(runProgram({"flac", "-d", "-s", "-f", "-o", path("decoded.wav"), path(name)}).status, 0);
        return readSound(path("decoded.wav"));
    }

    ScopedVariable m_sounds{"ORVANDELDSP_SOUNDS_DIR", GENERATED_SOUNDS_DIR};
};

// Bit-exact expectations need a chain that only moves samples; the bundled default filters them.
std::string const c_passthroughConfig = TEST_SOURCE_DIR "/data/passthrough.xml";

} // namespace

// Integer PCM is read in blocks of many periods and written the same way; a period that does not divide
// the blocks and an output of more than one block check the seams.
TEST_F(OrvandeldspToolTest, RunsThirtyTwoBitInputBitExactIntoEveryFormatAtAnyPeriod)
{
    size_t const frames = 50000;
    auto const left = testWords(frames);
    std::vector<int32_t> input;
    for (size_t f = 0; f < frames; ++f) {
        input.push_back(left[f]);
        input.push_back(int32_t(~uint32_t(left[frames - 1 - f])));
    }
    writeSound(path("in.wav"), SF_FORMAT_PCM_32, 2, input);

    for (auto const& [format, bits, subtype] : {std::tuple{"s16", 16, SF_FORMAT_PCM_16},
                                                {"s24", 24, SF_FORMAT_PCM_24},
                                                {"s32", 32, SF_FORMAT_PCM_32}}) {
        auto const result = runTool({"run", "--quiet", "--period", "1000", "-c", c_passthroughConfig,
                                     "--format", format, path("in.wav"), path("out.wav")});
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out + result.err, "");
        Sound const output = readSound(path("out.wav"));
        EXPECT_EQ(output.info.format, SF_FORMAT_WAV | subtype) << format;
        ASSERT_EQ(output.info.channels, 2);
        ASSERT_EQ(output.samples.size(), input.size()) << format;
        for (size_t i = 0; i < input.size(); ++i)
            ASSERT_EQ(output.samples[i], expectedThroughFormat(input[i], bits)) << format << " sample " << i;
    }

    // Through the bundled default chain, which filters and limits, the period changes nothing.
    std::vector<int32_t> first;
    for (char const* period : {"64", "1000", "1280"}) {
        ASSERT_EQ(runTool({"run", "-q", "--period", period, path("in.wav"), path("out.wav")}).status, 0);
        auto const samples = readSound(path("out.wav")).samples;
        EXPECT_EQ(samples.size(), input.size());
        if (!first.empty()) {
            EXPECT_EQ(samples, first) << period;
        }
        first = samples;
    }
}

// Every case of tests/data/config-faults.txt, refused by check and run alike, or warned of by check.
TEST_F(OrvandeldspToolTest, ConfigFaultsAreRefusedByCheckAndRunAlikeWithTheirPlaces)
{
    writeSound(path("in.wav"), SF_FORMAT_PCM_16, 2, {0, 0});
    // A case: its name and kind, its text, and the lines expected on stderr.
    std::vector<std::tuple<std::string, std::string, std::string, std::vector<std::string>>> cases;
    std::ifstream table(TEST_SOURCE_DIR "/data/config-faults.txt");
    for (std::string line; std::getline(table, line);) {
        auto const words = split(line.substr(std::min<size_t>(3, line.size())), " ");
        if (line.rfind("== ", 0) == 0)
            cases.emplace_back(words[0], words.size() > 1 ? words[1] : "", "", std::vector<std::string>{});
        else if (line.rfind("-> ", 0) == 0)
            std::get<3>(cases.back()).push_back(line.substr(3));
        else if (!cases.empty())
            std::get<2>(cases.back()) += line + "\n";
    }
    ASSERT_EQ(cases.size(), 18u);
    for (auto const& [name, kind, text, lines] : cases) {
        SCOPED_TRACE(name);
        std::string const config = kind == "absent" ? path(name) : writeConfig(name, text);
        std::string expected;
        for (auto const& line : lines)
            expected += "orvandeldsp: config " + config + line + "\n";
        std::size_t const known = std::min(expected.find("..."), expected.size());
        m_scratch.write("out.wav", "keep");
        std::vector<std::vector<std::string>> commands{{"check", "--rate", "96000", "--config", config}};
        if (kind != "warns")
            commands = {{"check", "--config", config},
                        {"run", "--config", config, path("in.wav"), path("out.wav")}};
        for (auto const& args : commands) {
            auto const result = runTool(args);
            EXPECT_EQ(result.status, kind == "warns" ? 0 : 2) << result.err;
            EXPECT_EQ(result.err.substr(0, known), expected.substr(0, known));
            EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), long(lines.size()))
                << result.err;
        }
        EXPECT_EQ(m_scratch.read("out.wav"), "keep");
    }
}

// What the library ignores is a warning: the config still checks and runs.
// Every row of tests/data/tool-answers.txt: a command line, its exit status and its one-line answer.
TEST_F(OrvandeldspToolTest, AnswersEachCommandLineOfTheTableInOneLine)
{
    writeSound(path("in.wav"), SF_FORMAT_PCM_16, 2, std::vector<int32_t>(2 * 4800, 0));
    writeSound(path("in44.wav"), SF_FORMAT_PCM_16, 2, std::vector<int32_t>(2 * 4410, 0), 44100);
    writeSound(path("three.wav"), SF_FORMAT_PCM_16, 3, std::vector<int32_t>(3 * 10, 0));
    // 0.5 and 0.25 of full scale.
    writeSound(path("half.wav"), SF_FORMAT_PCM_16, 2, {0x40000000, 0x20000000, 0, 0});
    symlink(path("in.wav").c_str(), path("link.wav").c_str());
    m_scratch.write("bad.txt", "volume gain -6\nvolume gain\n");
    m_scratch.write("welcome.flac", "not a FLAC stream");
    auto const inputs = m_scratch.entries();
    std::string const input = m_scratch.read("in.wav");
    ScopedVariable const sounds("ORVANDELDSP_SOUNDS_DIR", m_dir);
    ScopedVariable const card("ALSA_CONFIG_PATH", ALSA_TEST_CONFIG_DIR "/live-pcm.conf");
    auto const rows = readTable("tool-answers.txt");
    EXPECT_GE(rows.size(), 50u);
    for (auto row : rows) {
        SCOPED_TRACE(row[1]);
        row.resize(std::max<size_t>(row.size(), 3));
        for (auto& field : row)
            for (auto const& [name, value] : {std::pair<std::string, std::string>{"%", m_dir + "/"},
                                              {"{passthrough}", c_passthroughConfig},
                                              {"{configs}", PROJECT_SOURCE_DIR "/configs"},
                                              {"\\n", "\n"}})
                for (size_t at = field.find(name); at != std::string::npos; at = field.find(name, at + 1))
                    field.replace(at, name.size(), value);
        std::vector<std::string> args;
        for (auto const& word : split(row[1], " "))
            if (!word.empty())
                args.push_back(word == "''" ? "" : word);
        g_remove(path("o.wav").c_str());
        auto const result = runTool(args);
        EXPECT_EQ(result.status, std::stoi(row[0])) << result.err;
        std::string const rest = result.err.substr(result.err.find('\n') + 1);
        bool const usage =
            rest.empty() || (rest.rfind("usage: orvandeldsp ", 0) == 0 && rest.find('\n') == rest.size() - 1);
        bool const answered = result.status == 0
                                  ? result.err.find("orvandeldsp: " + row[2]) != std::string::npos
                                  : result.err.rfind("orvandeldsp: " + row[2], 0) == 0 && usage;
        EXPECT_TRUE(row[2].empty() ? result.err.empty() : answered) << result.err;
        for (size_t i = 3; i < row.size(); ++i) {
            bool const absent = row[i][0] == '!';
            EXPECT_EQ(result.out.find(row[i].substr(absent)) == std::string::npos, absent) << result.out;
        }
        if (result.status != 0) {
            EXPECT_EQ(m_scratch.entries(), inputs) << "nothing written";
        }
    }
    EXPECT_EQ(m_scratch.read("in.wav"), input);
}

TEST_F(OrvandeldspToolTest, CheckListsTheBundledConfigsAndGraphDrawsThem)
{
    for (auto const& config : std::filesystem::directory_iterator(PROJECT_SOURCE_DIR "/configs"))
        EXPECT_EQ(runTool({"check", "-c", config.path()}).status, 0) << config.path();

    auto const graph = runTool({"graph", "-o", path("chain.svg")});
    ASSERT_EQ(graph.status, 0) << graph.err;
    std::string const svg = m_scratch.read("chain.svg");
    EXPECT_NE(svg.find("<svg"), std::string::npos);
    EXPECT_NE(svg.find("level"), std::string::npos);
}

TEST_F(OrvandeldspToolTest, RateConvertsThroughAResamplerAndRefusesWhatCannotFit)
{
    std::string const resampling = PROJECT_SOURCE_DIR "/configs/resample-44100.xml";
    writeSound(path("in.wav"), SF_FORMAT_PCM_24, 2, stereoSine(1000.0, 0.5, 44100, 5 * 44100), 44100);
    auto result = runTool({"run", "-c", resampling, "--rate", "48000", path("in.wav"), path("out.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    // The frames the interpolation still holds at the end are flushed: five seconds at 48 kHz.
    EXPECT_NE(result.out.find("220500 frames in, 240000 out"), std::string::npos) << result.out;
    Sound const output = readSound(path("out.wav"));
    EXPECT_EQ(output.info.samplerate, 48000);
    EXPECT_EQ(output.info.frames, 240000);
    // Still a 1 kHz tone: one rising zero crossing per millisecond of the new rate.
    int crossings = 0;
    for (size_t f = 1; f < size_t(output.info.frames); ++f)
        crossings += output.samples[2 * f - 2] < 0 && output.samples[2 * f] >= 0;
    EXPECT_NEAR(crossings, 5000, 1);
}

TEST_F(OrvandeldspToolTest, DriftIsCorrectedByInsertingOrDroppingInconspicuousFrames)
{
    size_t const frames = 60 * 48000;
    auto const input = stereoSine(997.0, 0.5, 48000, frames);
    writeSound(path("in.wav"), SF_FORMAT_PCM_24, 2, input);
    int64_t const signalStep = largestStep(input, 2);
    for (int ppm : {100, -100}) {
        auto const result = runTool({"run", "-c", PROJECT_SOURCE_DIR "/configs/drift.xml", "--drift",
                                     std::to_string(ppm), path("in.wav"), path("out.wav")});
        ASSERT_EQ(result.status, 0) << result.err;
        Sound const output = readSound(path("out.wav"));
        // The compensator follows only the sign of the rounded delta through a 0.95/0.05 filter, so it
        // acts once the delta has kept its sign for 14 periods: 14 x 1024 frames x 100 ppm = 1.4 frames,
        // plus half a frame of rounding and one period before an order takes effect: within 3 frames.
        int64_t const change = int64_t(output.info.frames) - int64_t(frames);
        EXPECT_NEAR(double(change), ppm * 1e-6 * double(frames), 3.0) << ppm;
        std::string const counts = ppm > 0 ? std::to_string(change) + " frames inserted, 0 dropped"
                                           : "0 frames inserted, " + std::to_string(-change) + " dropped";
        EXPECT_NE(result.out.find(counts), std::string::npos) << result.out;
        EXPECT_LE(largestStep(output.samples, 2), signalStep) << ppm;
    }
}

TEST_F(OrvandeldspToolTest, DetectPrintsTheDetectorsTransitionsAtAudioTimes)
{
    // Silence past the start-up skip, a -20 dB tone from 3.1 s to 5 s, then silence.
    auto input = stereoSine(1000.0, 0.1, 48000, 20 * 48000);
    for (size_t i = 0; i < input.size(); ++i)
        input[i] = i / 2 >= 3.1 * 48000 && i / 2 < 5 * 48000 ? input[i] : 0;
    writeSound(path("in.wav"), SF_FORMAT_PCM_24, 2, input);
    std::string const lineIn = PROJECT_SOURCE_DIR "/configs/line-in.xml";
    auto result = runTool({"run", "-c", lineIn, "--detect", "--threshold-dir", m_dir, "--period", "1000",
                           path("in.wav"), path("out.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    // Active at the first poll after the tone began; silent once the 10 s hold after the last loud
    // period has run out, which the detector's trailing mean level delays by up to two more polls.
    std::string const active = "orvandeldsp detect 3.250 s: active, reason 2 (Rms value is over threshold)\n";
    ASSERT_EQ(result.out.rfind(active, 0), 0u) << result.out;
    double silentAt = 0.0;
    ASSERT_EQ(
        std::sscanf(result.out.c_str() + active.size(), "orvandeldsp detect %lf s: silent\n", &silentAt), 1)
        << result.out;
    EXPECT_GE(silentAt, 15.0);
    EXPECT_LE(silentAt, 15.5);
    EXPECT_NE(result.out.find(", 2 signal transitions\n"), std::string::npos) << result.out;
}

TEST_F(OrvandeldspToolTest, TypesListsTheDescriptorsAndTheCheckedInReferenceIsCurrent)
{
    auto const result = runTool({"types"});
    ASSERT_EQ(result.status, 0) << result.err;
    std::vector<Zelmar::Tools::String> listed;
    for (auto const& line : split(result.out.substr(0, result.out.size() - 1), "\n"))
        listed.push_back(line.substr(0, line.find(' ')));
    EXPECT_EQ(listed, Zelmar::ModuleFactory::get().getTypeNames());

    std::ifstream file(PROJECT_SOURCE_DIR "/docs/config-reference.md");
    std::string const reference{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(runTool({"types", "--markdown"}).out, reference)
        << "docs/config-reference.md is stale: write it anew with orvandeldsp types --markdown";
}

TEST_F(OrvandeldspToolTest, FilesFollowTheirNamesAndTheInputIsNeverLostOrCut)
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
        std::vector<std::string> args{"run", "-q", "-c", c_passthroughConfig};
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
    std::string const pipeline = std::string(ORVANDELDSP_TOOL) + " run -c " + c_passthroughConfig +
                                 " -t flac " + path("in.wav") + " - 2>" + path("summary.txt") + " | cat >" +
                                 path("streamed.flac");
    EXPECT_EQ(runProgram({"bash", "-c", pipeline}).status, 0);
    EXPECT_EQ(m_scratch.read("summary.txt").rfind("orvandeldsp: 3000 frames in, 3000 out", 0), 0u);
    EXPECT_EQ(decodedFlac("streamed.flac").samples, input);
}

// Whether the ten biquads run as one fused cascade (plain) or module by module (with meters), and in a
// run that is otherwise quiet, the output keeps every bit of a run without the profile, and the profile
// names every module in signal-flow order with shares of the chain that add up to the whole.
TEST_F(OrvandeldspToolTest, ProfileListsEveryModuleInFlowOrderAndLeavesTheOutputAlone)
{
    std::string const config = PROJECT_SOURCE_DIR "/configs/ten-band-eq.xml";
    uint32_t state = 7;
    writeSound(path("in.wav"), SF_FORMAT_PCM_32, 2, stereoWords(5000, [&](size_t) {
                   state = state * 1664525u + 1013904223u;
                   return int32_t(state) / 4;
               }));
    ASSERT_EQ(runTool({"run", "-q", "-p", "333", "-c", config, path("in.wav"), path("plain.wav")}).status, 0);
    auto const order = split("in band-31 band-63 band-125 band-250 band-500 band-1000 band-2000 band-4000 "
                             "band-8000 band-16000 out chain host",
                             " ");
    for (auto const& [option, fused] :
         {std::pair{"--progress", true}, {"--meters", false}, {"--quiet", true}}) {
        SCOPED_TRACE(option);
        auto const result =
            runTool({"run", option, "--profile", "-p", "333", "-c", config, path("in.wav"), path("out.wav")});
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(readSound(path("out.wav")).samples, readSound(path("plain.wav")).samples);
        std::vector<std::string> ids;
        double shares = 0.0;
        for (auto const& line : split(result.out, "\n")) {
            auto const words = split(line, " ");
            if (words.size() < 3 || words[1] != "profile:")
                continue;
            ids.push_back(words[2]);
            if (words[2].rfind("band-", 0) == 0) {
                EXPECT_EQ(line.find("fused") != std::string::npos, fused) << line;
            }
            std::size_t const share = line.find(" % of the chain");
            if (share != std::string::npos)
                shares += std::stod(line.substr(line.rfind(' ', share - 1)));
        }
        EXPECT_EQ(ids, order) << result.out;
        EXPECT_NEAR(shares, 100.0, 0.1 * 12) << result.out;
    }
}

TEST_F(OrvandeldspToolTest, EncodeWritesTheWholeStreamBitExact)
{
    // Both extremes a 24-bit FLAC holds among random samples, and a length that is no multiple of the
    // encoder's 1152-frame block nor of the period.
    auto const samples = twentyFourBitWords(2 * (3 * 48000 + 777));
    writeSound(path("in.wav"), SF_FORMAT_PCM_24, 2, samples);

    auto const result = runTool({"run", "-c", TEST_SOURCE_DIR "/data/encoder.xml", "--period", "1000",
                                 "--encode", path("out.flac"), path("in.wav"), path("out.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("bytes of FLAC in " + path("out.flac")), std::string::npos) << result.out;
    // The stream is finished at the end, so even the last, incomplete block is in the file.
    Sound const decoded = decodedFlac("out.flac");
    EXPECT_EQ(decoded.info.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_24);
    EXPECT_EQ(decoded.info.samplerate, 48000);
    EXPECT_EQ(decoded.samples, samples);

    // The bundled line-in chain encodes its input too.
    ASSERT_EQ(runTool({"run", "-q", "-c", PROJECT_SOURCE_DIR "/configs/line-in.xml", "--encode",
                       path("line-in.flac"), path("in.wav"), path("out.wav")})
                  .status,
              0);
    EXPECT_EQ(decodedFlac("line-in.flac").samples, samples);
}

TEST_F(OrvandeldspToolTest, EncodeFailuresEndTheRunWithOneLineAndNoFiles)
{
    writeSound(path("in.wav"), SF_FORMAT_PCM_24, 2, std::vector<int32_t>(2 * 9000, 0x40000000));

    // Half scale boosted by 6 dB reaches 1.0, which a 24-bit FLAC cannot hold: libFLAC refuses it.
    auto const result = runTool({"run", "-c", TEST_SOURCE_DIR "/data/loud-encoder.xml", "--encode",
                                 path("out.flac"), path("in.wav"), path("out.wav")});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "orvandeldsp: cannot encode " + path("out.flac") + ": FlacEncoder error: 5\n");
    EXPECT_FALSE(exists("out.flac"));
    EXPECT_FALSE(exists("out.wav"));
}

TEST_F(OrvandeldspToolTest, SoundIsMixedBitExactOverDuckedMusic)
{
    // 44100 Hz plays a sound one stored frame per output frame. Left is silent, so it carries the sound
    // alone; right is a quarter of full scale, ducked to exactly a sixteenth once the fade has settled.
    unsigned int const rate = 44100;
    unsigned int const frames = 3 * rate / 2;
    int32_t const music = 0x200000 << 8;
    std::vector<int32_t> input(2 * frames);
    for (unsigned int i = 0; i < frames; ++i)
        input[2 * i + 1] = music;
    writeSound(path("music.wav"), SF_FORMAT_PCM_24, 2, input, int(rate));
    Sound const welcome = readSound(GENERATED_SOUNDS_DIR "/welcome.flac");
    auto const soundFrames = unsigned(welcome.info.frames);
    ASSERT_GT(soundFrames, rate / 2);

    // 0.3 s is input frame 13230, in the period of 1000 frames that starts at frame 13000.
    auto const result = runTool({"run", "-c", PROJECT_SOURCE_DIR "/configs/sounds.xml", "--format", "s32",
                                 "--period", "1000", "--sound", "9@0.3", path("music.wav"), path("out.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("1 system sounds played"), std::string::npos) << result.out;
    Sound const out = readSound(path("out.wav"));
    ASSERT_EQ(out.samples.size(), input.size());

    unsigned int const start = 13000;
    unsigned int const fadeFrames = rate / 4 + 1;
    unsigned int mismatches = 0;
    for (unsigned int i = 0; i < frames; ++i) {
        bool const playing = i >= start && i < start + soundFrames;
        int32_t const left = playing ? welcome.samples[2 * (i - start)] : 0;
        mismatches += out.samples[2 * i] != left;
        if (i < start)
            mismatches += out.samples[2 * i + 1] != music;
        else if (i >= start + fadeFrames && playing)
            mismatches += out.samples[2 * i + 1] != music / 4 + welcome.samples[2 * (i - start) + 1];
    }
    EXPECT_EQ(mismatches, 0u);
    EXPECT_EQ(out.samples.back(), music) << "the music comes back to full level after the sound";
}

// The sections of tests/data/cascade.xml on the left channel, the right one straight through.
TEST_F(OrvandeldspToolTest, ResponseMeasuresABiquadCascadeAsItsQuantisedCoefficientsPredictIntoItsFiles)
{
    std::vector<Section> const sections = {
        {"peak", 1000.0, 1.4, 6.0}, {"loshelf", 200.0, 0.707, -4.0}, {"hipass", 60.0, 0.707, 0.0}};
    // Another rate than the default, so that the chain and the curve must both follow --rate.
    auto const result =
        runTool({"response", "-c", TEST_SOURCE_DIR "/data/cascade.xml", "--rate", "44100", "--from", "30",
                 "--to", "15000", "--points", "60", "--csv", path("r.csv"), "-o", path("r.svg")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_NE(m_scratch.read("r.svg").find("<svg"), std::string::npos);
    // Written under temporary names first; none may be left over.
    EXPECT_EQ(m_scratch.entries().size(), 2u);
    auto const [lines, rows] = parseCsv(m_scratch.read("r.csv"));
    ASSERT_EQ(rows.size(), 60u);
    EXPECT_EQ(lines[0], "frequency_hz,out0_db,out0_phase_deg,out1_db,out1_phase_deg");
    for (size_t i = 0; i < rows.size(); ++i) {
        auto const& row = rows[i];
        SCOPED_TRACE(lines[i + 1]);
        EXPECT_TRUE(g_regex_match_simple("^\\d+\\.\\d{2,}(,-?\\d+\\.\\d{3,}){4}$", lines[i + 1].c_str(),
                                         G_REGEX_DEFAULT, G_REGEX_MATCH_DEFAULT));
        std::complex<double> const expected = cascadeGain(sections, 44100.0, row[0]);
        EXPECT_NEAR(row[1], 20.0 * std::log10(std::abs(expected)), 0.05);
        EXPECT_NEAR(std::remainder(row[2] - std::arg(expected) * 180.0 / M_PI, 360.0), 0.0, 0.5);
        EXPECT_NEAR(row[3], 0.0, 1e-3);
        EXPECT_NEAR(row[4], 0.0, 1e-2);
    }
}

// A limiter shows at a high level, and an adaptive one follows the volume asked for.
TEST_F(OrvandeldspToolTest, ResponseLevelAndVolumeShowHowALimiterActs)
{
    std::string const config = TEST_SOURCE_DIR "/data/limited.xml";
    struct Case
    {
        char const* level;
        char const* volume; // 100 is 0 dB, 10 is -40 dB
        double expectedDb;
        double tolerance;
    } const cases[] = {
        {"-30", "100", 20.0 * std::log10(4.0), 0.01}, // 12 dB by six per doubling, under any threshold
        {"0", "100", 20.0 * std::log10(0.5), 0.5},    // held at the threshold of -6 dB, that is 0.5
        {"0", "10", 0.0, 0.5},                        // held at 0 dB
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(std::string(c.level) + " dBFS, volume " + c.volume);
        auto const result = runTool({"response", "-c", config, "--level", c.level, "--volume", c.volume,
                                     "--from", "1000", "--to", "1001", "--points", "2"});
        ASSERT_EQ(result.status, 0) << result.err;
        auto const rows = parseCsv(result.out).second;
        ASSERT_EQ(rows.size(), 2u);
        EXPECT_NEAR(rows[0][1], c.expectedDb, c.tolerance);
        EXPECT_NEAR(rows[0][3], c.expectedDb, c.tolerance);
    }
}
