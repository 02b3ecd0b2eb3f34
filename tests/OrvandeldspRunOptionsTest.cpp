// The run options that drive library parts a live host drives: --encode and --sound.
#include "support/ScopedVariable.h"
#include "support/ToolRun.h"

#include <random>

namespace {

using namespace Zelmar::Testing;

class OrvandeldspRunOptionsTest : public ToolTest
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

TEST_F(OrvandeldspRunOptionsTest, EncodeWritesTheWholeStreamBitExact)
{
    // Random 24-bit samples (as libsndfile left-justifies them), both extremes a 24-bit FLAC holds, and a
    // length that is no multiple of the encoder's 1152-frame block nor of the period.
    unsigned int const frames = 3 * 48000 + 777;
    std::mt19937 random(7);
    std::uniform_int_distribution<int32_t> value(-0x800000, 0x7fffff);
    std::vector<int32_t> samples(2 * frames);
    for (auto& s : samples)
        s = int32_t(uint32_t(value(random)) << 8);
    samples[10] = int32_t(0x7fffff00);
    samples[11] = INT32_MIN;
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

TEST_F(OrvandeldspRunOptionsTest, EncodeFailuresEndTheRunWithOneLineAndNoFiles)
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

TEST_F(OrvandeldspRunOptionsTest, SoundIsMixedBitExactOverDuckedMusic)
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

} // namespace
