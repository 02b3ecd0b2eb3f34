#include "dsp/Rompler.h"

#include "support/LogCapture.h"
#include "support/SoundFiles.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>

using namespace Zelmar;

namespace {

// Runs a voice in periods of `period` frames until it reports finished; returns the periods used.
unsigned int periodsUntilFinished(RomplerData const& data, unsigned int period)
{
    Rompler voice(data);
    std::vector<tSample> left(period), right(period);
    unsigned int periods = 0;
    while (!voice.isFinished() && periods < 1000) {
        voice.process(left.data(), right.data(), period);
        ++periods;
    }
    return periods;
}

void corruptByteAt(std::string const& file, std::streamoff offset)
{
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    stream.seekg(offset);
    char byte = 0;
    stream.read(&byte, 1);
    byte = static_cast<char>(byte ^ 0x5a);
    stream.seekp(offset);
    stream.write(&byte, 1);
}

} // namespace

// The folder follows the install prefix; the environment of a player never redirects it.
TEST(RomplerTest, RelativeNamesResolveIntoTheSoundsFolder)
{
    g_setenv("ORVANDELDSP_SOUNDS_DIR", "/opt/sounds", TRUE);
    EXPECT_EQ(RomplerData::getAbsolutePath("ok.flac"), INSTALL_FULL_DATADIR "/orvandel-1.0/sounds/ok.flac");
    EXPECT_EQ(RomplerData::getAbsolutePath("/tmp/x.flac"), "/tmp/x.flac");
    RomplerData::setSoundsDirectory("/srv/mine");
    EXPECT_EQ(RomplerData::getAbsolutePath("ok.flac"), "/srv/mine/ok.flac");
    EXPECT_EQ(RomplerData::getAbsolutePath("/tmp/x.flac"), "/tmp/x.flac");
    RomplerData::setSoundsDirectory("");
    EXPECT_EQ(RomplerData::getAbsolutePath("ok.flac"), INSTALL_FULL_DATADIR "/orvandel-1.0/sounds/ok.flac");
    g_unsetenv("ORVANDELDSP_SOUNDS_DIR");
}

TEST(RomplerTest, DecodesSixteenBitStereoAndStepsAtTheFixedRate)
{
    Testing::TemporarySoundsDirectory folder;
    folder.write("ramp.flac", Testing::makeRamp(5000));
    RomplerData at44100(44100, "ramp.flac");
    RomplerData at48000(48000, "ramp.flac");
    EXPECT_EQ(at44100.getStep(), 1024u);
    EXPECT_EQ(at48000.getStep(), 940u);
    EXPECT_EQ(RomplerData(96000, "ramp.flac").getStep(), 470u);
    ASSERT_TRUE(Testing::waitUntilLoaded(at44100));
    ASSERT_TRUE(Testing::waitUntilLoaded(at48000));
    EXPECT_EQ(at44100.getSamples(), Testing::makeRamp(5000));

    // A voice adds into what is there: two voices of one sound double it.
    std::vector<tSample> left(64, tSample(0.5)), right(64);
    Rompler first(at44100), second(at44100);
    EXPECT_EQ(first.process(left.data(), right.data(), 64), 64u);
    second.process(left.data(), right.data(), 64);
    EXPECT_EQ(left[10].getRaw(), tSample(0.5).getRaw() + 2 * (-1000 + 70) * 4096);
    EXPECT_EQ(right[10].getRaw(), 2 * (1000 - 70 - 1) * 4096);
}

TEST(RomplerTest, FinishesInTheLastPeriodOrOneLaterOnABoundary)
{
    Testing::TemporarySoundsDirectory folder;
    folder.write("a.flac", Testing::makeRamp(100));
    folder.write("b.flac", Testing::makeRamp(90));
    RomplerData hundred(44100, "a.flac"), ninety(44100, "b.flac"), slow(48000, "a.flac");
    ASSERT_TRUE(Testing::waitUntilLoaded(hundred) && Testing::waitUntilLoaded(ninety) &&
                Testing::waitUntilLoaded(slow));
    EXPECT_EQ(periodsUntilFinished(hundred, 30), 4u) << "ceil(100 / 30)";
    EXPECT_EQ(periodsUntilFinished(ninety, 30), 4u) << "90 frames end on a boundary: one period more";
    // 100 stored frames at step 940 last 109 output frames: ceil(109 / 30) periods.
    EXPECT_EQ(periodsUntilFinished(slow, 30), 4u);
    EXPECT_EQ(periodsUntilFinished(slow, 109), 2u);

    Rompler voice(hundred);
    std::vector<tSample> left(200), right(200);
    EXPECT_EQ(voice.process(left.data(), right.data(), 200), 100u);
    EXPECT_TRUE(voice.isFinished());
    EXPECT_EQ(voice.process(left.data(), right.data(), 200), 0u);
    EXPECT_TRUE(voice.isFinished()) << "a finished voice never restarts";

    Rompler idle(hundred);
    idle.process(left.data(), right.data(), 0);
    EXPECT_FALSE(idle.isFinished());
}

TEST(RomplerTest, MissingFileIsLoggedAndItsVoicesWaitSilently)
{
    Testing::TemporarySoundsDirectory folder;
    Testing::LogCapture log;
    std::string const path = folder.path("missing.flac");
    RomplerData data(48000, "missing.flac");
    ASSERT_TRUE(log.waitForMessages(1));
    EXPECT_EQ(log.messages()[0], "RomplerData::load(): could not init file " + path +
                                     " , failed with status " +
                                     std::to_string(FLAC__STREAM_DECODER_INIT_STATUS_ERROR_OPENING_FILE));
    EXPECT_FALSE(data.isLoaded());

    Rompler voice(data);
    std::vector<tSample> left(64), right(64);
    EXPECT_EQ(voice.process(left.data(), right.data(), 64), 0u);
    EXPECT_FALSE(voice.isFinished());
    EXPECT_EQ(left, std::vector<tSample>(64));
}

TEST(RomplerTest, DamagedFilesStillLoadWhatDecodes)
{
    Testing::TemporarySoundsDirectory folder;
    // Noise, so that the encoded frames are large enough to hit.
    std::vector<int16_t> samples(40000);
    uint32_t seed = 1;
    for (auto& sample : samples)
        sample = static_cast<int16_t>((seed = seed * 1664525u + 1013904223u) >> 16);
    // STREAMINFO's MD5 sum sits at bytes 26..41, behind "fLaC", the block header and 18 bytes of format.
    corruptByteAt(folder.write("md5.flac", samples), 30);
    std::string const frameDamaged = folder.write("frame.flac", samples);
    corruptByteAt(frameDamaged, 8000);

    Testing::LogCapture log;
    RomplerData wrongSum(44100, "md5.flac");
    ASSERT_TRUE(Testing::waitUntilLoaded(wrongSum));
    EXPECT_EQ(wrongSum.getSamples(), samples) << "a wrong MD5 sum is noticed but accepted";
    EXPECT_TRUE(log.messages().empty());

    RomplerData broken(44100, "frame.flac");
    ASSERT_TRUE(Testing::waitUntilLoaded(broken));
    ASSERT_FALSE(log.messages().empty());
    EXPECT_EQ(
        log.messages()[0].rfind("RomplerData::errorCallback(): got error callback during flac decoding: "
                                "FLAC__STREAM_DECODER_ERROR_STATUS_",
                                0),
        0u)
        << log.messages()[0];
    EXPECT_NE(broken.getSamples(), samples);
}
