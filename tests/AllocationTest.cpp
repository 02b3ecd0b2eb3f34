#include "dsp/Chain.h"
#include "dsp/DumpSamples.h"
#include "dsp/FlacEncoder.h"
#include "dsp/InputStage.h"
#include "dsp/OutputStage.h"
#include "dsp/Sounds.h"
#include "support/EveryTypeChain.h"
#include "support/HeapWatch.h"
#include "support/LogCapture.h"
#include "support/MemoryAlsaBuffers.h"
#include "support/ModuleHarness.h"
#include "support/SoundFiles.h"
#include "support/TemporaryDirectory.h"

#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <iterator>
#include <random>

using namespace Zelmar;

TEST(ChainTest, ProcessingACompiledChainNeverTouchesTheHeap)
{
    Chain chain(48000, PROJECT_SOURCE_DIR "/configs/default.xml");
    chain.enableMeters(true);
    Testing::MemoryAlsaBuffers capture(2), playback(2);
    auto output = Testing::attachHostBuffers(chain, capture, playback);

    Testing::watchHeapOnThisThread(true);
    auto probe = std::make_shared<AudioBuffer>(64);
    probe.reset();
    Testing::watchHeapOnThisThread(false);
    ASSERT_GE(Testing::takeHeapCallsOfWatchedThreads(), 2)
        << "the counter must see an allocation and its free";

    Testing::watchHeapOnThisThread(true);
    for (unsigned int period = 0; period < 200; ++period) {
        unsigned int const frames = 64 + (period * 97) % 1217;
        capture.getChannel(0).m_numFrames = frames;
        capture.getChannel(1).m_numFrames = frames;
        if (period == 50)
            output->setMute(false);
        if (period == 120)
            output->setMute(true);
        chain.process();
    }
    Testing::watchHeapOnThisThread(false);
    EXPECT_EQ(Testing::takeHeapCallsOfWatchedThreads(), 0);
}

// A player runs for days and its sets are changed at any time: a change in every period, for a million
// periods, leaves the heap as it was, the main loop freeing each replaced set between two periods.
TEST(ChainTest, AChangeInEveryPeriodForAMillionPeriodsLeavesTheHeapAsItWas)
{
    struct Change
    {
        char const* module;
        char const* key;
        char const* values[2];
    };
    Change const changes[] = {
        {"gn", "gain", {"-3", "-9"}},          {"lm", "threshold", {"-2", "-1"}},
        {"dl", "delay", {"1000", "90"}},       {"sw", "selected-port", {"1", "0"}},
        {"pb", "routing", {"mono", "left"}},   {"out", "interleave-pattern", {"10", "01"}},
        {"bq", "frequency", {"6000", "8000"}}, {"eq", "low-gain", {"2", "4"}},
        {"se", "mid-gain", {"1", "3"}},        {"ab", "q", {"2", "1"}},
        {"al", "attack", {"2", "1"}},          {"sb", "gain", {"2", "3"}},
    };
    Testing::LogCapture quiet(7);
    Testing::EveryTypeChain every;
    std::vector<tSample> const period(8, tSample(0.25));
    std::mt19937 random(5);
    auto const run = [&](unsigned int periods) {
        for (unsigned int i = 0; i < periods; ++i) {
            Change const& change = changes[random() % std::size(changes)];
            every.chain().findModule(change.module)->setParameter(change.key, change.values[random() % 2]);
            every.process(period, period);
            Testing::runPendingMainLoopJobs();
        }
    };
    run(1000);
    long const before = Testing::heapBytesInUse();
    run(1000000);
    // A set lost per thousand periods would add some 50 kB; what GLib's timers and worker threads hold
    // at the moment of measuring varies by up to some 23 kB on a loaded machine.
    EXPECT_LT(std::abs(Testing::heapBytesInUse() - before), 32768);
}

TEST(SoundsTest, MixingAndDuckingNeverTouchTheHeap)
{
    Testing::SoundsRig rig(48000);
    auto& sounds = rig.m_sounds;
    auto& capture = rig.m_capture;
    RomplerData::setSoundsDirectory(GENERATED_SOUNDS_DIR);
    for (auto sound : {SystemSound::Touch, SystemSound::Ok, SystemSound::Welcome})
        rig.load(sound);
    RomplerData::setSoundsDirectory("");
    capture.getChannel(0).samples.assign(1280, tSample(0.5));
    capture.getChannel(1).samples.assign(1280, tSample(0.5));

    unsigned int soundingPeriods = 0;
    for (unsigned int period = 0; period < 400; ++period) {
        // Voices are made and freed on the control side; only processing is counted.
        if (period % 7 == 0)
            sounds->trigger(period % 2 ? SystemSound::Touch : SystemSound::Ok);
        if (period == 350)
            sounds->trigger(SystemSound::Welcome);
        Testing::runPendingMainLoopJobs();
        unsigned int const frames = 64 + (period * 97) % 1217;
        capture.getChannel(0).m_numFrames = frames;
        capture.getChannel(1).m_numFrames = frames;
        Testing::takeHeapCallsOfWatchedThreads();
        Testing::watchHeapOnThisThread(true);
        rig.m_chain.process();
        Testing::watchHeapOnThisThread(false);
        ASSERT_EQ(Testing::takeHeapCallsOfWatchedThreads(), 0) << "period " << period;
        if (sounds->getOutPortBuffer(0)->getRawData()[frames - 1] != tSample(0.5))
            ++soundingPeriods;
    }
    EXPECT_GT(soundingPeriods, 300u) << "voices were mixed and the music ducked";
}

TEST(FlacEncoderTest, QueueingForTheWorkerThreadsNeverTouchesTheHeap)
{
    Testing::TemporaryDirectory directory("allocation-XXXXXX");
    auto encoder = std::make_shared<FlacEncoder>("enc");
    auto dump = std::make_shared<DumpSamples>("dump");
    Testing::ModuleHarness encoding(encoder), dumping(dump, true);
    encoder->setParameters(Parameters{}, 48000);
    dump->setParameters(Parameters{{"directory", directory.path()}}, 48000);
    encoder->startEncoding();
    std::vector<tSample> const quiet(1280, tSample(0.01));
    encoding.process({quiet, quiet});
    dumping.process({quiet});

    Testing::takeHeapCallsOfWatchedThreads();
    Testing::watchHeapOnThisThread(true);
    for (unsigned int period = 0; period < 200; ++period) {
        encoder->process();
        dump->process();
    }
    Testing::watchHeapOnThisThread(false);
    EXPECT_EQ(Testing::takeHeapCallsOfWatchedThreads(), 0);
    encoder->stopEncoding();
}
