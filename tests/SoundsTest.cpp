#include "dsp/Sounds.h"

#include "dsp/Chain.h"
#include "dsp/InputStage.h"
#include "dsp/OutputStage.h"
#include "dsp/ParsingException.h"
#include "support/HeapWatch.h"
#include "support/LogCapture.h"
#include "support/MemoryAlsaBuffers.h"
#include "support/SoundFiles.h"
#include "support/Thrown.h"

#include <FLAC/metadata.h>
#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace Zelmar;
using Testing::SoundsRig;

namespace {

int32_t shifted(int16_t sample)
{
    return int32_t(sample) * 4096;
}

std::vector<int32_t> raw(std::vector<tSample>::const_iterator begin, std::vector<tSample>::const_iterator end)
{
    std::vector<int32_t> words;
    for (auto it = begin; it != end; ++it)
        words.push_back(it->getRaw());
    return words;
}

} // namespace

TEST(SoundsTest, DucksToAQuarterOverAQuarterSecondAndReturnsWhenTheVoiceEnds)
{
    Testing::TemporarySoundsDirectory folder;
    folder.write("ok.flac", Testing::makeConstant(22050, 0));
    SoundsRig rig(48000);
    int32_t const music = rig.m_music.getRaw();
    int32_t const quarter = (tSample(0.5) * Sounds::c_reducedAmp).getRaw();
    EXPECT_EQ(Sounds::c_reducedAmp.getRaw(), 0x02000000);

    rig.run(1000);
    EXPECT_EQ(raw(rig.m_left.begin(), rig.m_left.end()), std::vector<int32_t>(1000, music)) << "untouched";
    EXPECT_FALSE(rig.m_output->hasPlayRequests());

    rig.load(SystemSound::Ok);
    rig.m_left.clear();
    rig.m_sounds->trigger(SystemSound::Ok);
    EXPECT_TRUE(rig.m_output->hasPlayRequests());
    rig.run(48000, 700);
    auto const& out = rig.m_left;
    // The gain steps 3 / 48000 per frame: 12000 steps from 1.0 reach the quarter.
    EXPECT_EQ(out[0].getRaw(), music);
    EXPECT_EQ(out[1], tSample(0.5) * (Sounds::c_fullAmp - tSample(3.0f / 48000.0f)));
    EXPECT_NEAR(out[6000].toDouble(), 0.5 * 0.625, 1e-4);
    EXPECT_GT(out[12000].getRaw(), quarter);
    EXPECT_TRUE(std::is_sorted(out.rbegin() + 36000, out.rend())) << "falls steadily";
    // 22050 stored frames at step 940 last 24021 output frames; the quarter holds until then.
    EXPECT_EQ(raw(out.begin() + 12001, out.begin() + 24500), std::vector<int32_t>(24500 - 12001, quarter));

    // The voice finishes in the period holding frame 24020 (frames 23800..24499) and is removed at
    // its end; the rise starts with the next period and takes 12000 steps back to 1.0.
    EXPECT_FALSE(rig.m_output->hasPlayRequests());
    EXPECT_EQ(out[24500].getRaw(), quarter);
    EXPECT_GT(out[24501].getRaw(), quarter);
    EXPECT_LT(out[24500 + 12000].getRaw(), music);
    EXPECT_EQ(raw(out.begin() + 24500 + 12001, out.end()), std::vector<int32_t>(48000 - 36501, music));
}

TEST(SoundsTest, VoiceBitsAreItsSamplesShiftedInAtTheFixedStep)
{
    Testing::TemporarySoundsDirectory folder;
    auto const samples = Testing::makeRamp(3000, -20000, 13);
    folder.write("touch.flac", samples);
    for (unsigned int rate : {44100u, 48000u}) {
        SoundsRig rig(rate, tSample(0.0));
        rig.load(SystemSound::Touch);
        rig.m_sounds->trigger(SystemSound::Touch);
        rig.run(4000, 333);
        uint32_t const step = rate == 44100 ? 1024 : 940;
        for (unsigned int k = 0; k < 4000; ++k) {
            unsigned int const index = (k * step) >> 10;
            int32_t const expected = index < 3000 ? shifted(samples[2 * index]) : 0;
            ASSERT_EQ(rig.m_left[k].getRaw(), expected) << "rate " << rate << " frame " << k;
        }
    }
}

TEST(SoundsTest, TwoTriggersInOnePeriodPlayTogetherLaterFirst)
{
    Testing::TemporarySoundsDirectory folder;
    folder.write("ok.flac", Testing::makeConstant(100, 3));
    folder.write("touch.flac", Testing::makeConstant(3000, 50));
    SoundsRig rig(44100, tSample(0.0));
    rig.load(SystemSound::Ok);
    rig.load(SystemSound::Touch);
    unsigned int const alive = Rompler::getNumLiveVoices();

    rig.m_sounds->trigger(SystemSound::Ok);
    rig.m_sounds->trigger(SystemSound::Touch);
    rig.run(256, 256);
    EXPECT_EQ(rig.m_left[99].getRaw(), shifted(53));
    EXPECT_EQ(rig.m_left[100].getRaw(), shifted(50));

    // Only the head is examined: the short voice, listed behind the later long one, waits for it.
    rig.run(256 * 10, 256);
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(Rompler::getNumLiveVoices(), alive + 2);
    rig.run(256, 256);
    EXPECT_EQ(Rompler::getNumLiveVoices(), alive + 2) << "freed on the main loop only";
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(Rompler::getNumLiveVoices(), alive + 1);
    EXPECT_TRUE(rig.m_output->hasPlayRequests());
    rig.run(256, 256);
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(Rompler::getNumLiveVoices(), alive);
    EXPECT_FALSE(rig.m_output->hasPlayRequests());
}

TEST(SoundsTest, NewVoicesAreLinkedBehindTheHeadDroppingTheRest)
{
    Testing::TemporarySoundsDirectory folder;
    folder.write("error.flac", Testing::makeConstant(8000, 1));
    folder.write("ok.flac", Testing::makeConstant(8000, 10));
    folder.write("touch.flac", Testing::makeConstant(8000, 100));
    folder.write("welcome.flac", Testing::makeConstant(8000, 1000));
    SoundsRig rig(44100, tSample(0.0));
    for (auto sound : {SystemSound::Error, SystemSound::Ok, SystemSound::Touch, SystemSound::Welcome})
        rig.load(sound);
    unsigned int const alive = Rompler::getNumLiveVoices();

    rig.m_sounds->trigger(SystemSound::Error);
    rig.run(100, 100);
    rig.m_sounds->trigger(SystemSound::Ok);
    rig.m_sounds->trigger(SystemSound::Touch);
    rig.run(100, 100);
    EXPECT_EQ(rig.m_left.back().getRaw(), shifted(111));
    rig.m_sounds->trigger(SystemSound::Welcome);
    rig.run(100, 100);
    EXPECT_EQ(rig.m_left.back().getRaw(), shifted(1001)) << "the two voices behind the head are gone";

    rig.run(9000, 1000);
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(rig.m_left.back().getRaw(), 0);
    EXPECT_FALSE(rig.m_output->hasPlayRequests());
    EXPECT_EQ(Rompler::getNumLiveVoices(), alive + 2) << "dropped voices are never freed";
}

TEST(SoundsTest, AVoiceWithoutDataWaitsAndKeepsTheSignalDucked)
{
    Testing::TemporarySoundsDirectory folder;
    unsigned int const alive = Rompler::getNumLiveVoices();
    {
        SoundsRig rig(48000);
        Testing::LogCapture log;
        RomplerData& data = *rig.m_sounds->getRomplerDataForSoundType(SystemSound::Welcome);
        ASSERT_TRUE(log.waitForMessages(1)) << "the loader gave up";
        rig.m_sounds->trigger(SystemSound::Welcome);
        rig.run(30000);
        Testing::runPendingMainLoopJobs();
        EXPECT_FALSE(data.isLoaded());
        EXPECT_EQ(rig.m_left.back(), tSample(0.5) * Sounds::c_reducedAmp);
        EXPECT_TRUE(rig.m_output->hasPlayRequests());
        EXPECT_EQ(Rompler::getNumLiveVoices(), alive + 1);
    }
    EXPECT_EQ(Rompler::getNumLiveVoices(), alive) << "the module frees its voices when it goes";
}

TEST(SoundsTest, AdoptsTheOneOutputStageOnly)
{
    auto const setUpMessage = [](bool stereoWrapped) {
        Chain chain(48000);
        chain.addModule("input", "in");
        chain.addModule("sounds", "system-sounds")->setParameters(Parameters(), 48000);
        if (stereoWrapped) {
            chain.addStereoModule("output", "out")
                ->setParameters(Parameters{{"interleave-pattern", "0"}}, 48000);
        } else {
            chain.addModule("output", "a")->setParameters(Parameters{{"interleave-pattern", "0"}}, 48000);
            chain.addModule("output", "b")->setParameters(Parameters{{"interleave-pattern", "0"}}, 48000);
        }
        return Testing::thrownMessage<ParsingException>([&] { chain.compile(); });
    };
    std::string const message =
        "The current implementation for unmuting the output stage on system sounds relies "
        "on only one output stage existing.";
    EXPECT_EQ(setUpMessage(false), message);
    EXPECT_EQ(setUpMessage(true), message);

    SoundsRig rig(48000);
    rig.m_chain.compile();
    rig.m_sounds->requestPlay(true);
    EXPECT_TRUE(rig.m_output->hasPlayRequests()) << "recompiling keeps the same stage";
    rig.m_sounds->requestPlay(true);
    rig.m_sounds->requestPlay(false);
    EXPECT_FALSE(rig.m_output->hasPlayRequests()) << "one request per module";
}

TEST(SoundsTest, GeneratedSoundsAreShortStereoAndLoad)
{
    SoundsRig rig(44100);
    RomplerData::setSoundsDirectory(GENERATED_SOUNDS_DIR);
    for (unsigned int value = 0; value < c_numSystemSounds; ++value) {
        auto& data = rig.load(SystemSound(value));
        auto const frames = data.getSamples().size() / 2;
        EXPECT_GT(frames, 441u) << value;
        EXPECT_LT(frames, 44100u) << value;
        auto const [low, high] = std::minmax_element(data.getSamples().begin(), data.getSamples().end());
        EXPECT_GT(*high, 8000) << value;
        EXPECT_LT(*low, -8000) << value;
    }
    RomplerData::setSoundsDirectory("");
    FLAC__StreamMetadata info;
    ASSERT_TRUE(FLAC__metadata_get_streaminfo(GENERATED_SOUNDS_DIR "/welcome.flac", &info));
    EXPECT_EQ(info.data.stream_info.sample_rate, 44100u);
    EXPECT_EQ(info.data.stream_info.channels, 2u);
    EXPECT_EQ(info.data.stream_info.bits_per_sample, 16u);
    EXPECT_NE(std::count(info.data.stream_info.md5sum, info.data.stream_info.md5sum + 16, 0), 16);
}

// Triggers from a control thread against an audio thread processing as fast as it can, while the
// main loop frees. Each trigger waits for the period after its push, so that no batch is ever
// linked behind a head with followers and every voice must come back.
TEST(SoundsTest, TriggersRaceTheAudioThreadAndEveryVoiceIsFreedOffIt)
{
    Testing::TemporarySoundsDirectory folder;
    folder.write("touch.flac", Testing::makeRamp(10));
    folder.write("ok.flac", Testing::makeRamp(20));
    SoundsRig rig(48000, tSample(0.25));
    rig.load(SystemSound::Touch);
    rig.load(SystemSound::Ok);
    rig.run(64, 64); // leaves 64-frame periods for the audio thread to repeat
    unsigned int const alive = Rompler::getNumLiveVoices();

    std::atomic<unsigned int> periods{0};
    std::atomic<bool> stop{false}, triggered{false};
    std::atomic<int> audioHeapCalls{-1};
    std::thread audio([&] {
        Testing::watchHeapOnThisThread(true);
        while (!stop.load()) {
            rig.m_chain.process();
            periods.fetch_add(1);
        }
        Testing::watchHeapOnThisThread(false);
        audioHeapCalls = Testing::takeHeapCallsOfWatchedThreads();
    });
    std::thread control([&] {
        for (unsigned int i = 0; i < 3000; ++i) {
            rig.m_sounds->trigger(i % 3 ? SystemSound::Touch : SystemSound::Ok);
            unsigned int const pushedDuring = periods.load();
            // Past the deadline the audio thread stops; the test then fails instead of hanging here.
            while (periods.load() < pushedDuring + 2 && !stop.load())
                std::this_thread::yield();
        }
        triggered = true;
    });
    auto const deadline = g_get_monotonic_time() + 20 * G_USEC_PER_SEC;
    while ((!triggered.load() || Rompler::getNumLiveVoices() != alive) && g_get_monotonic_time() < deadline) {
        Testing::runPendingMainLoopJobs();
        std::this_thread::yield();
    }
    stop = true;
    audio.join();
    control.join();
    Testing::runPendingMainLoopJobs();

    EXPECT_EQ(Rompler::getNumLiveVoices(), alive);
    EXPECT_EQ(audioHeapCalls.load(), 0) << "no voice is made or freed on the audio thread";
    EXPECT_FALSE(rig.m_output->hasPlayRequests());
}
