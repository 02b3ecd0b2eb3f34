#include "dsp/Sounds.h"

#include "dsp/OutputStage.h"
#include "dsp/ParsingException.h"
#include "dsp/Rompler.h"
#include "dsp/RomplerData.h"
#include "dsp/SystemSoundsPlayer.h"
#include "sounds/FlacWriter.h"
#include "support/HeapWatch.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/ModuleHarness.h"
#include "support/ScopedVariable.h"
#include "support/TemporaryDirectory.h"
#include "support/Thrown.h"

#include <FLAC/metadata.h>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace Zelmar;
using tSound = std::vector<int16_t>;

namespace {

// A private sounds folder for one test: relative sound names resolve into it while it exists.
struct SoundsFolder : Testing::TemporaryDirectory
{
    SoundsFolder() { RomplerData::setSoundsDirectory(path().c_str()); }
    ~SoundsFolder() { RomplerData::setSoundsDirectory(""); }
    void add(std::string const& name, tSound const& interleavedStereo)
    {
        std::string error;
        EXPECT_TRUE(SoundGeneration::writeFlacFile(path(name), interleavedStereo, 44100, "", error)) << error;
    }
};

// Left runs up from `first`, right mirrors it below zero, so channel mix-ups and sign errors show.
tSound ramp(unsigned int frames, int first = -1000, int slope = 7)
{
    tSound samples;
    for (int i = 0; i < int(frames); ++i)
        samples.insert(samples.end(), {int16_t(first + slope * i), int16_t(-(first + slope * i) - 1)});
    return samples;
}

bool waitUntilLoaded(RomplerData const& data)
{
    for (int i = 0; i < 5000 && !data.isLoaded(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return data.isLoaded();
}

// The sounds module fed with constant music on both channels, so the duck shows as the output level,
// and the one output stage it finds in its chain.
struct SoundsRig
{
    explicit SoundsRig(unsigned int sampleRate, tSample music = tSample(0.5)) : music(music)
    {
        sounds->setParameters(Parameters(), sampleRate);
        output = std::dynamic_pointer_cast<OutputStage>(harness.getChain().addModule("output", "out"));
        sounds->preSetup(harness.getChain(), 1280);
    }

    // Processes `frames` frames in periods of `period` and appends the output, as raw words.
    void run(unsigned int frames, unsigned int period = 500)
    {
        auto const out = harness.processInPeriods(
            {Testing::constant(frames, music), Testing::constant(frames, music)}, period);
        for (unsigned int i = 0; i < frames; ++i) {
            left.push_back(out[0][i].getRaw());
            right.push_back(out[1][i].getRaw());
        }
    }

    RomplerData& load(SystemSound sound)
    {
        auto data = sounds->getRomplerDataForSoundType(sound);
        EXPECT_TRUE(waitUntilLoaded(*data));
        return *data;
    }

    std::shared_ptr<Sounds> sounds = std::make_shared<Sounds>("system-sounds");
    Testing::ModuleHarness harness{sounds};
    std::shared_ptr<OutputStage> output;
    tSample music;
    std::vector<int32_t> left, right;
};

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

} // namespace

// The folder follows the install prefix; the environment of a player never redirects it.
TEST(RomplerTest, ResolvesNamesDecodesAndFinishesInTheLastPeriodOrOneLaterOnABoundary)
{
    Testing::ScopedVariable elsewhere("ORVANDELDSP_SOUNDS_DIR", "/opt/sounds");
    EXPECT_EQ(RomplerData::getAbsolutePath("ok.flac"), INSTALL_FULL_DATADIR "/orvandel-1.0/sounds/ok.flac");
    RomplerData::setSoundsDirectory("/srv/mine");
    EXPECT_EQ(RomplerData::getAbsolutePath("ok.flac"), "/srv/mine/ok.flac");
    EXPECT_EQ(RomplerData::getAbsolutePath("/tmp/x.flac"), "/tmp/x.flac");
    RomplerData::setSoundsDirectory("");
    SoundsFolder folder;
    folder.add("a.flac", ramp(100));
    folder.add("b.flac", ramp(90));
    RomplerData hundred(44100, "a.flac"), ninety(44100, "b.flac"), slow(48000, "a.flac");
    EXPECT_EQ(
        std::vector<uint32_t>({hundred.getStep(), slow.getStep(), RomplerData(96000, "a.flac").getStep()}),
        std::vector<uint32_t>({1024, 940, 470}));
    ASSERT_TRUE(waitUntilLoaded(hundred) && waitUntilLoaded(ninety) && waitUntilLoaded(slow));
    // ceil(100 / 30); 90 frames end on a boundary: one period more; at step 940 they last 109 frames.
    EXPECT_EQ(std::vector<unsigned int>({periodsUntilFinished(hundred, 30), periodsUntilFinished(ninety, 30),
                                         periodsUntilFinished(slow, 109)}),
              std::vector<unsigned int>({4, 4, 2}));
    Rompler voice(hundred);
    std::vector<tSample> left(200), right(200);
    voice.process(left.data(), right.data(), 0);
    EXPECT_FALSE(voice.isFinished()) << "an empty period finishes nothing";
    EXPECT_EQ(voice.process(left.data(), right.data(), 200), 100u);
    EXPECT_EQ(voice.process(left.data(), right.data(), 200), 0u);
    EXPECT_TRUE(voice.isFinished()) << "a finished voice never restarts";
}

TEST(RomplerTest, DamagedFilesLoadWhatDecodesAndAMissingOneKeepsItsVoiceSilentAndTheMusicDucked)
{
    SoundsFolder folder;
    // Noise, so that the encoded frames are large enough to hit.
    tSound samples;
    for (tSample s : Testing::noise(40000, 1))
        samples.push_back(int16_t(s.getRaw() >> 12));
    // STREAMINFO's MD5 sum sits at bytes 26..41, behind "fLaC", the block header and 18 bytes of format.
    for (auto const& [name, offset] : {std::pair{"md5.flac", 30}, {"frame.flac", 8000}}) {
        folder.add(name, samples);
        std::string bytes = folder.read(name);
        bytes[offset] = char(bytes[offset] ^ 0x5a);
        folder.write(name, bytes);
    }
    Testing::LogCapture log;
    RomplerData wrongSum(44100, "md5.flac");
    ASSERT_TRUE(waitUntilLoaded(wrongSum));
    EXPECT_EQ(wrongSum.getSamples(), samples) << "a wrong MD5 sum is noticed but accepted";
    EXPECT_TRUE(log.lines().empty());
    RomplerData broken(44100, "frame.flac");
    ASSERT_TRUE(waitUntilLoaded(broken));
    EXPECT_NE(broken.getSamples(), samples);
    EXPECT_GT(log.count("4 RomplerData::errorCallback(): got error callback during flac decoding: "
                        "FLAC__STREAM_DECODER_ERROR_STATUS_"),
              0)
        << testing::PrintToString(log.lines());

    log.clear();
    unsigned int const alive = Rompler::getNumLiveVoices();
    {
        SoundsRig rig(48000);
        RomplerData& data = *rig.sounds->getRomplerDataForSoundType(SystemSound::Welcome);
        ASSERT_TRUE(log.waitForLines(1)) << "the loader gave up";
        EXPECT_EQ(log.lines(), std::vector<std::string>{
                                   "4 RomplerData::load(): could not init file " +
                                   folder.path("welcome.flac") + " , failed with status " +
                                   std::to_string(FLAC__STREAM_DECODER_INIT_STATUS_ERROR_OPENING_FILE)});
        rig.sounds->trigger(SystemSound::Welcome);
        rig.run(30000);
        Testing::runPendingMainLoopJobs();
        EXPECT_FALSE(data.isLoaded());
        EXPECT_EQ(rig.left.back(), (rig.music * Sounds::c_reducedAmp).getRaw());
        EXPECT_TRUE(rig.output->hasPlayRequests());
        EXPECT_EQ(Rompler::getNumLiveVoices(), alive + 1);
    }
    EXPECT_EQ(Rompler::getNumLiveVoices(), alive) << "the module frees its voices when it goes";
}

TEST(SoundsTest, DucksToAQuarterOverAQuarterSecondAndReturnsWhenTheVoiceEnds)
{
    SoundsFolder folder;
    folder.add("ok.flac", tSound(2 * 22050));
    SoundsRig rig(48000);
    int32_t const music = rig.music.getRaw(), quarter = (rig.music * Sounds::c_reducedAmp).getRaw();
    EXPECT_EQ(Sounds::c_reducedAmp.getRaw(), 0x02000000);
    rig.run(1000);
    EXPECT_EQ(rig.left, std::vector<int32_t>(1000, music)) << "untouched";
    rig.load(SystemSound::Ok);
    rig.left.clear();
    rig.sounds->preSetup(rig.harness.getChain(), 1280);
    rig.sounds->trigger(SystemSound::Ok);
    EXPECT_TRUE(rig.output->hasPlayRequests()) << "set up again, it keeps the same stage";
    rig.run(48000, 700);
    auto const& out = rig.left;
    // The gain steps 3 / 48000 per frame: 12000 steps from 1.0 reach the quarter.
    EXPECT_EQ(std::make_pair(out[0], out[1]),
              std::make_pair(music, (rig.music * (Sounds::c_fullAmp - tSample(3.0f / 48000.0f))).getRaw()));
    EXPECT_NEAR(out[6000], tSample(0.5 * 0.625).getRaw(), 1e-4 * (1 << 27));
    EXPECT_GT(out[12000], quarter);
    EXPECT_TRUE(std::is_sorted(out.rbegin() + 36000, out.rend())) << "falls steadily";
    // 22050 stored frames at step 940 last 24021 output frames; the quarter holds until then. The voice
    // finishes in the period holding frame 24020 (frames 23800..24499) and is removed at its end; the
    // rise starts with the next period and takes 12000 steps back to 1.0.
    EXPECT_EQ(std::vector<int32_t>(out.begin() + 12001, out.begin() + 24501),
              std::vector<int32_t>(12500, quarter));
    EXPECT_FALSE(rig.output->hasPlayRequests());
    EXPECT_TRUE(out[24501] > quarter && out[36500] < music);
    EXPECT_EQ(std::vector<int32_t>(out.begin() + 36501, out.end()),
              std::vector<int32_t>(48000 - 36501, music));
}

TEST(SoundsTest, VoiceBitsAreItsSamplesShiftedInAtTheFixedStep)
{
    SoundsFolder folder;
    auto const samples = ramp(3000, -20000, 13);
    folder.add("touch.flac", samples);
    for (unsigned int rate : {44100u, 48000u}) {
        SoundsRig rig(rate, tSample(0.0));
        rig.load(SystemSound::Touch);
        rig.sounds->trigger(SystemSound::Touch);
        rig.run(4000, 333);
        std::vector<int32_t> left, right;
        for (unsigned int k = 0; k < 4000; ++k) {
            unsigned int const index = (k * (rate == 44100 ? 1024 : 940)) >> 10;
            left.push_back(index < 3000 ? samples[2 * index] * 4096 : 0);
            right.push_back(index < 3000 ? samples[2 * index + 1] * 4096 : 0);
        }
        EXPECT_EQ(rig.left, left) << rate;
        EXPECT_EQ(rig.right, right) << rate;
    }
}

// Voices triggered in one period play together, the later first in the list; only the head is examined
// for having finished; voices triggered while several play are linked behind the head and the others
// dropped, never to be freed.
TEST(SoundsTest, VoicesAddUpInTheirListAndOnlyTheHeadIsExamined)
{
    SoundsFolder folder;
    SoundsRig rig(44100, tSample(0.0));
    for (auto const& [file, sound, frames, value] : {std::tuple{"ok.flac", SystemSound::Ok, 100, 3},
                                                     {"touch.flac", SystemSound::Touch, 3000, 50},
                                                     {"error.flac", SystemSound::Error, 4000, 1},
                                                     {"welcome.flac", SystemSound::Welcome, 4000, 1000}}) {
        folder.add(file, tSound(2 * frames, int16_t(value)));
        rig.load(sound);
    }
    unsigned int const alive = Rompler::getNumLiveVoices();
    // Live voices after the periods and after the main loop ran, and whether a play request is held.
    auto const voices = [&](unsigned int periods) {
        rig.run(256 * periods, 256);
        unsigned int const beforeMainLoop = Rompler::getNumLiveVoices() - alive;
        Testing::runPendingMainLoopJobs();
        return std::tuple{beforeMainLoop, Rompler::getNumLiveVoices() - alive, rig.output->hasPlayRequests()};
    };
    rig.sounds->trigger(SystemSound::Ok);
    rig.sounds->trigger(SystemSound::Touch);
    EXPECT_EQ(voices(1), std::tuple(2u, 2u, true)) << "the finished short voice waits behind the long one";
    rig.sounds->trigger(SystemSound::Error);
    rig.sounds->trigger(SystemSound::Welcome);
    // Touch ends in the twelfth period, then Welcome and Error in the seventeenth and eighteenth.
    EXPECT_EQ(std::vector({voices(10), voices(1), voices(4), voices(1), voices(1)}),
              std::vector({std::tuple{4u, 4u, true}, std::tuple{4u, 3u, true}, std::tuple{3u, 3u, true},
                           std::tuple{3u, 2u, true}, std::tuple{2u, 1u, false}}));
    EXPECT_EQ(
        std::vector<int32_t>({rig.left[99], rig.left[100], rig.left[511], rig.left[3100], rig.left.back()}),
        std::vector<int32_t>({53 * 4096, 50 * 4096, 1051 * 4096, 1001 * 4096, 0}));
}

TEST(SoundsTest, AdoptsTheOneOutputStageOnly)
{
    Chain chain(48000);
    chain.addModule("sounds", "system-sounds")->setParameters(Parameters(), 48000);
    for (char const* id : {"a", "b"})
        chain.addModule("output", id)->setParameters({{"interleave-pattern", "0"}}, 48000);
    EXPECT_EQ(Testing::thrownMessage<ParsingException>([&] { chain.compile(); }),
              "The current implementation for unmuting the output stage on system sounds relies "
              "on only one output stage existing.");
}

TEST(SoundsTest, GeneratedSoundsAreTheTenShortStereoFiles)
{
    SoundsRig rig(44100);
    RomplerData::setSoundsDirectory(GENERATED_SOUNDS_DIR);
    std::string names;
    for (unsigned int value = 0; value < c_numSystemSounds; ++value) {
        names += rig.sounds->getFileName(SystemSound(value)).str() + " ";
        auto const& samples = rig.load(SystemSound(value)).getSamples();
        auto const [low, high] = std::minmax_element(samples.begin(), samples.end());
        EXPECT_TRUE(samples.size() / 2 > 441 && samples.size() / 2 < 44100 && *high > 8000 && *low < -8000)
            << value;
    }
    RomplerData::setSoundsDirectory("");
    EXPECT_EQ(names,
              "connected-bt.flac disconnected-bt.flac error.flac ok.flac touch.flac touch-play-pause.flac "
              "wait-for-connection.flac direct-line-in-playback.flac line-in-streaming.flac welcome.flac ");
    FLAC__StreamMetadata info;
    ASSERT_TRUE(FLAC__metadata_get_streaminfo(GENERATED_SOUNDS_DIR "/welcome.flac", &info));
    auto const& stream = info.data.stream_info;
    EXPECT_EQ(std::tuple(stream.sample_rate, stream.channels, stream.bits_per_sample),
              std::tuple(44100u, 2u, 16u));
}

// Triggers from a control thread against an audio thread processing as fast as it can, while the
// main loop frees. Each trigger waits for the period after its push, so that no batch is ever
// linked behind a head with followers and every voice must come back. On a loaded machine a wait
// can take a scheduler slice, so the count is kept small and the time limit is only a safety net.
TEST(SoundsTest, TriggersRaceTheAudioThreadAndEveryVoiceIsFreedOffIt)
{
    SoundsFolder folder;
    folder.add("touch.flac", ramp(10));
    folder.add("ok.flac", ramp(20));
    SoundsRig rig(48000, tSample(0.25));
    rig.load(SystemSound::Touch);
    rig.load(SystemSound::Ok);
    rig.run(64, 64); // leaves 64-frame periods for the audio thread to repeat
    unsigned int const alive = Rompler::getNumLiveVoices();
    std::atomic<unsigned int> periods{0};
    std::atomic<bool> stop{false}, triggered{false};
    std::thread audio([&] {
        Testing::watchHeapOnThisThread(true);
        for (; !stop.load(); periods.fetch_add(1))
            rig.sounds->process();
        Testing::watchHeapOnThisThread(false);
        EXPECT_EQ(Testing::takeHeapCallsOfWatchedThreads(), 0)
            << "no voice is made or freed on the audio thread";
    });
    std::thread control([&] {
        for (unsigned int i = 0; i < 500 && !stop.load(); ++i) {
            rig.sounds->trigger(i % 3 ? SystemSound::Touch : SystemSound::Ok);
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
    EXPECT_FALSE(rig.output->hasPlayRequests());
}

TEST(SystemSoundsPlayerTest, IdsCountUpFromOneAndUnknownIdsAreLogged)
{
    // A fresh process: the counter is process-wide and other tests may have drawn ids already.
    EXPECT_EXIT(_exit(SystemSoundsPlayer().registerRepeatingSound(SystemSound::Ok, 100) == 1 ? 0 : 1),
                testing::ExitedWithCode(0), "");
    Testing::LogCapture log;
    SystemSoundsPlayer player;
    unsigned int const first = player.registerRepeatingSound(SystemSound::Ok, 100);
    EXPECT_EQ(player.registerRepeatingSound(SystemSound::Touch, 100), first + 1);
    player.stopRepeatingSound(first + 1);
    player.stopRepeatingSound(first + 1);
    EXPECT_EQ(SystemSoundsPlayer().registerRepeatingSound(SystemSound::Ok, 100), first + 2) << "never reused";
    player.startRepeatingSound(first + 7, nullptr);
    player.play(SystemSound::Ok, nullptr);
    std::string const p = "4 SystemSoundsPlayer::";
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{p + "stopRepeatingSound(): sound with id " +
                                            std::to_string(first + 1) + " neither registered nor started",
                                        p + "startRepeatingSound(): no sound with id " +
                                            std::to_string(first + 7) + " registered",
                                        p + "play(): no chain provided"}));
}
