#include "dsp/Sounds.h"

#include "dsp/Chain.h"
#include "dsp/ParsingException.h"
#include "dsp/Rompler.h"
#include "dsp/SystemSoundsPlayer.h"
#include "support/HeapWatch.h"
#include "support/LogCapture.h"
#include "support/ScopedVariable.h"
#include "support/SoundFiles.h"
#include "support/Thrown.h"

#include <FLAC/metadata.h>
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

using namespace Zelmar;
using Testing::SoundsRig;

namespace {

int32_t shifted(int16_t sample)
{
    return int32_t(sample) * 4096;
}

std::vector<int32_t> words(std::vector<tSample>::const_iterator begin,
                           std::vector<tSample>::const_iterator end)
{
    std::vector<int32_t> values;
    for (auto it = begin; it != end; ++it)
        values.push_back(it->getRaw());
    return values;
}

// Runs a voice in periods of `period` frames until it reports finished; returns the periods used.
unsigned int periodsUntilFinished(RomplerData const& data, unsigned int period)
{
    Rompler voice(data);
    std::vector<tSample> left(period), right(period);
    unsigned int periods = 0;
    for (; !voice.isFinished() && periods < 1000; ++periods)
        voice.process(left.data(), right.data(), period);
    return periods;
}

void corruptByteAt(std::string const& file, std::streamoff offset)
{
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    stream.seekg(offset);
    char const flipped = static_cast<char>(stream.get() ^ 0x5a);
    stream.seekp(offset);
    stream.put(flipped);
}

} // namespace

// The folder follows the install prefix; the environment of a player never redirects it.
TEST(RomplerTest, RelativeNamesResolveIntoTheSoundsFolder)
{
    Testing::ScopedVariable elsewhere("ORVANDELDSP_SOUNDS_DIR", "/opt/sounds");
    EXPECT_EQ(RomplerData::getAbsolutePath("ok.flac"), INSTALL_FULL_DATADIR "/orvandel-1.0/sounds/ok.flac");
    RomplerData::setSoundsDirectory("/srv/mine");
    EXPECT_EQ(RomplerData::getAbsolutePath("ok.flac"), "/srv/mine/ok.flac");
    EXPECT_EQ(RomplerData::getAbsolutePath("/tmp/x.flac"), "/tmp/x.flac");
    RomplerData::setSoundsDirectory("");
}

TEST(RomplerTest, DecodesSixteenBitStereoAndFinishesInTheLastPeriodOrOneLaterOnABoundary)
{
    Testing::TemporarySoundsDirectory folder;
    folder.write("a.flac", Testing::makeRamp(100));
    folder.write("b.flac", Testing::makeRamp(90));
    RomplerData hundred(44100, "a.flac"), ninety(44100, "b.flac"), slow(48000, "a.flac");
    EXPECT_EQ(hundred.getStep(), 1024u);
    EXPECT_EQ(slow.getStep(), 940u);
    EXPECT_EQ(RomplerData(96000, "a.flac").getStep(), 470u);
    ASSERT_TRUE(Testing::waitUntilLoaded(hundred) && Testing::waitUntilLoaded(ninety) &&
                Testing::waitUntilLoaded(slow));
    EXPECT_EQ(hundred.getSamples(), Testing::makeRamp(100));

    EXPECT_EQ(periodsUntilFinished(hundred, 30), 4u) << "ceil(100 / 30)";
    EXPECT_EQ(periodsUntilFinished(ninety, 30), 4u) << "90 frames end on a boundary: one period more";
    EXPECT_EQ(periodsUntilFinished(slow, 109), 2u) << "100 stored frames at step 940 last 109 output frames";

    Rompler voice(hundred);
    std::vector<tSample> left(200), right(200);
    voice.process(left.data(), right.data(), 0);
    EXPECT_FALSE(voice.isFinished()) << "an empty period finishes nothing";
    EXPECT_EQ(voice.process(left.data(), right.data(), 200), 100u);
    EXPECT_EQ(voice.process(left.data(), right.data(), 200), 0u);
    EXPECT_TRUE(voice.isFinished()) << "a finished voice never restarts";
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
    corruptByteAt(folder.write("frame.flac", samples), 8000);

    Testing::LogCapture log;
    RomplerData wrongSum(44100, "md5.flac");
    ASSERT_TRUE(Testing::waitUntilLoaded(wrongSum));
    EXPECT_EQ(wrongSum.getSamples(), samples) << "a wrong MD5 sum is noticed but accepted";
    EXPECT_TRUE(log.messages().empty());

    RomplerData broken(44100, "frame.flac");
    ASSERT_TRUE(Testing::waitUntilLoaded(broken));
    EXPECT_TRUE(log.containsStart("RomplerData::errorCallback(): got error callback during flac decoding: "
                                  "FLAC__STREAM_DECODER_ERROR_STATUS_",
                                  4))
        << testing::PrintToString(log.leveled());
    EXPECT_NE(broken.getSamples(), samples);
}

TEST(SoundsTest, DucksToAQuarterOverAQuarterSecondAndReturnsWhenTheVoiceEnds)
{
    Testing::TemporarySoundsDirectory folder;
    folder.write("ok.flac", Testing::makeConstant(22050, 0));
    SoundsRig rig(48000);
    int32_t const music = rig.m_music.getRaw();
    int32_t const quarter = (tSample(0.5) * Sounds::c_reducedAmp).getRaw();
    EXPECT_EQ(Sounds::c_reducedAmp.getRaw(), 0x02000000);

    rig.run(1000);
    EXPECT_EQ(words(rig.m_left.begin(), rig.m_left.end()), std::vector<int32_t>(1000, music)) << "untouched";
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
    EXPECT_EQ(words(out.begin() + 12001, out.begin() + 24500), std::vector<int32_t>(24500 - 12001, quarter));

    // The voice finishes in the period holding frame 24020 (frames 23800..24499) and is removed at
    // its end; the rise starts with the next period and takes 12000 steps back to 1.0.
    EXPECT_FALSE(rig.m_output->hasPlayRequests());
    EXPECT_EQ(out[24500].getRaw(), quarter);
    EXPECT_GT(out[24501].getRaw(), quarter);
    EXPECT_LT(out[24500 + 12000].getRaw(), music);
    EXPECT_EQ(words(out.begin() + 24500 + 12001, out.end()), std::vector<int32_t>(48000 - 36501, music));
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
    EXPECT_EQ(rig.m_left[99].getRaw(), shifted(53)) << "voices add up";
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

TEST(SoundsTest, AVoiceOfAMissingFileWaitsSilentlyAndKeepsTheSignalDucked)
{
    Testing::TemporarySoundsDirectory folder;
    unsigned int const alive = Rompler::getNumLiveVoices();
    {
        SoundsRig rig(48000);
        Testing::LogCapture log;
        RomplerData& data = *rig.m_sounds->getRomplerDataForSoundType(SystemSound::Welcome);
        ASSERT_TRUE(log.waitForMessages(1)) << "the loader gave up";
        EXPECT_EQ(log.leveled(), std::vector<std::string>{
                                     "4 RomplerData::load(): could not init file " +
                                     folder.path("welcome.flac") + " , failed with status " +
                                     std::to_string(FLAC__STREAM_DECODER_INIT_STATUS_ERROR_OPENING_FILE)});
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
    for (bool stereoWrapped : {false, true}) {
        Chain chain(48000);
        chain.addModule("input", "in");
        chain.addModule("sounds", "system-sounds")->setParameters(Parameters(), 48000);
        Parameters const pattern{{"interleave-pattern", "0"}};
        if (stereoWrapped) {
            chain.addStereoModule("output", "out")->setParameters(pattern, 48000);
        } else {
            chain.addModule("output", "a")->setParameters(pattern, 48000);
            chain.addModule("output", "b")->setParameters(pattern, 48000);
        }
        EXPECT_EQ(Testing::thrownMessage<ParsingException>([&] { chain.compile(); }),
                  "The current implementation for unmuting the output stage on system sounds relies "
                  "on only one output stage existing.");
    }

    SoundsRig rig(48000);
    rig.m_chain.compile();
    rig.m_sounds->requestPlay(true);
    EXPECT_TRUE(rig.m_output->hasPlayRequests()) << "recompiling keeps the same stage";
}

TEST(SoundsTest, GeneratedSoundsAreTheTenShortStereoFiles)
{
    char const* const names[] = {"connected-bt.flac",
                                 "disconnected-bt.flac",
                                 "error.flac",
                                 "ok.flac",
                                 "touch.flac",
                                 "touch-play-pause.flac",
                                 "wait-for-connection.flac",
                                 "direct-line-in-playback.flac",
                                 "line-in-streaming.flac",
                                 "welcome.flac"};
    SoundsRig rig(44100);
    RomplerData::setSoundsDirectory(GENERATED_SOUNDS_DIR);
    for (unsigned int value = 0; value < c_numSystemSounds; ++value) {
        EXPECT_EQ(rig.m_sounds->getFileName(SystemSound(value)), names[value]);
        auto const& samples = rig.load(SystemSound(value)).getSamples();
        EXPECT_GT(samples.size() / 2, 441u) << value;
        EXPECT_LT(samples.size() / 2, 44100u) << value;
        auto const [low, high] = std::minmax_element(samples.begin(), samples.end());
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
// linked behind a head with followers and every voice must come back. On a loaded machine a wait
// can take a scheduler slice, so the count is kept small and the time limit is only a safety net.
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
        for (unsigned int i = 0; i < 500 && !stop.load(); ++i) {
            rig.m_sounds->trigger(i % 3 ? SystemSound::Touch : SystemSound::Ok);
            unsigned int const pushedDuring = periods.load();
            // Past the deadline the audio thread stops; the test then fails instead of hanging here.
            while (periods.load() < pushedDuring + 2 && !stop.load())
                std::this_thread::yield();
        }
        triggered = true;
        g_main_context_wakeup(nullptr);
    });
    EXPECT_TRUE(Testing::runMainLoopUntil(
        [&] { return triggered.load() && Rompler::getNumLiveVoices() == alive; }, std::chrono::seconds(60)));
    stop = true;
    audio.join();
    control.join();
    EXPECT_EQ(Rompler::getNumLiveVoices(), alive);
    EXPECT_EQ(audioHeapCalls.load(), 0) << "no voice is made or freed on the audio thread";
    EXPECT_FALSE(rig.m_output->hasPlayRequests());
}

TEST(SystemSoundsPlayerTest, TheFirstIdOfAProcessIsOne)
{
    // A fresh process: the counter is process-wide and other tests may have drawn ids already.
    EXPECT_EXIT(_exit(SystemSoundsPlayer().registerRepeatingSound(SystemSound::Ok, 100) == 1 ? 0 : 1),
                testing::ExitedWithCode(0), "");
}

TEST(SystemSoundsPlayerTest, IdsCountUpAndUnknownIdsAreLogged)
{
    Testing::LogCapture log;
    SystemSoundsPlayer player;
    unsigned int const first = player.registerRepeatingSound(SystemSound::Ok, 100);
    EXPECT_EQ(player.registerRepeatingSound(SystemSound::Touch, 100), first + 1);
    player.stopRepeatingSound(first + 1);
    player.stopRepeatingSound(first + 1);
    EXPECT_EQ(SystemSoundsPlayer().registerRepeatingSound(SystemSound::Ok, 100), first + 2) << "never reused";
    player.startRepeatingSound(first + 7, nullptr);
    player.play(SystemSound::Ok, nullptr);
    Chain empty(44100);
    player.play(SystemSound::Ok, &empty);
    auto const id = [&](unsigned int offset) { return std::to_string(first + offset); };
    EXPECT_EQ(log.leveled(),
              (std::vector<std::string>{
                  "4 SystemSoundsPlayer::stopRepeatingSound(): sound with id " + id(1) +
                      " neither registered nor started",
                  "4 SystemSoundsPlayer::startRepeatingSound(): no sound with id " + id(7) + " registered",
                  "4 SystemSoundsPlayer::play(): no chain provided",
                  "4 SystemSoundsPlayer::play(): could not find module system-sounds"}));
}

// Timers never fire early, so a count of plays bounds the time from below; silence is checked over
// two intervals.
TEST(SystemSoundsPlayerTest, RepeatsEachIntervalFromStartUntilStopped)
{
    Testing::TemporarySoundsDirectory folder;
    folder.write("ok.flac", Testing::makeConstant(10, 1));
    SoundsRig rig(44100);
    unsigned int const before = Rompler::getNumLiveVoices();
    auto const plays = [&] { return Rompler::getNumLiveVoices() - before; };
    auto const idle = [] {
        return Testing::runMainLoopUntil([] { return false; }, std::chrono::milliseconds(80));
    };
    SystemSoundsPlayer player;
    unsigned int const early = player.registerRepeatingSound(SystemSound::Ok, 40);
    player.play(SystemSound::Ok, &rig.m_chain);
    EXPECT_EQ(plays(), 1u) << "a single play triggers at once";
    idle();
    EXPECT_EQ(plays(), 1u) << "registered sounds wait for a chain";

    player.startAllPendingSounds(&rig.m_chain);
    unsigned int const late = player.registerRepeatingSound(SystemSound::Ok, 40);
    player.startRepeatingSound(late, &rig.m_chain);
    gint64 const start = g_get_monotonic_time();
    EXPECT_TRUE(Testing::runMainLoopUntil([&] { return plays() == 3; })) << "the fresh timers expire at once";
    // Eight plays of two sounds take at least one sound to its fourth play, three intervals on.
    EXPECT_TRUE(Testing::runMainLoopUntil([&] { return plays() >= 1 + 8; }));
    EXPECT_GE(g_get_monotonic_time() - start, 3 * 40000);

    player.stopRepeatingSound(early);
    player.stopRepeatingSound(late);
    unsigned int const afterStop = plays();
    idle();
    EXPECT_EQ(plays(), afterStop);
}
