// The audio thread neither allocates nor frees: every module type in one chain, over periods of every
// length, while sounds play, the encoder and the sample dump hand their samples to their workers, the
// output fades and parameters change.
#include "dsp/FlacEncoder.h"
#include "dsp/RomplerData.h"
#include "dsp/Sounds.h"
#include "support/DataFile.h"
#include "support/HeapWatch.h"
#include "support/LoadedChain.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <thread>

using namespace Zelmar;

TEST(ChainTest, ProcessingEveryModuleTypeNeverTouchesTheHeap)
{
    Testing::watchHeapOnThisThread(true);
    std::make_shared<AudioBuffer>(64).reset();
    Testing::watchHeapOnThisThread(false);
    ASSERT_GE(Testing::takeHeapCallsOfWatchedThreads(), 2)
        << "the counter must see an allocation and its free";

    Testing::LogCapture quiet(7);
    // Alike but for the sounds, to tell what they change.
    Testing::LoadedChain every("every-type.xml"), silent("every-type.xml");
    every.chain().enableMeters(true);
    auto const sounds = std::dynamic_pointer_cast<Sounds>(every.chain().findModule("system-sounds"));
    RomplerData::setSoundsDirectory(GENERATED_SOUNDS_DIR);
    for (auto sound : {SystemSound::Touch, SystemSound::Ok})
        for (int i = 0; i < 5000 && !sounds->getRomplerDataForSoundType(sound)->isLoaded(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    RomplerData::setSoundsDirectory("");
    std::dynamic_pointer_cast<FlacEncoder>(every.chain().findModule("fe"))->startEncoding();
    for (auto* chain : {&every, &silent})
        for (unsigned int channel = 0; channel < 2; ++channel)
            chain->capture.getChannel(channel).samples.assign(1280, tSample(0.5));

    unsigned int ducked = 0;
    for (unsigned int period = 0; period < 400; ++period) {
        // Voices are made and freed, parameters changed, on the control side; only processing is counted.
        if (period % 7 == 0)
            sounds->trigger(period % 2 ? SystemSound::Touch : SystemSound::Ok);
        if (period % 50 == 0)
            every.output().setMute(period % 100 != 0);
        unsigned int const frames = 64 + (period * 97) % 1217;
        for (auto* chain : {&every, &silent}) {
            if (period % 30 == 0)
                chain->chain().findModule("sb")->setParameter("gain", period % 60 ? "-5" : "2");
            chain->capture.getChannel(0).m_numFrames = frames;
            chain->capture.getChannel(1).m_numFrames = frames;
        }
        Testing::runPendingMainLoopJobs();
        silent.chain().process();
        Testing::takeHeapCallsOfWatchedThreads();
        Testing::watchHeapOnThisThread(true);
        every.chain().process();
        Testing::watchHeapOnThisThread(false);
        ASSERT_EQ(Testing::takeHeapCallsOfWatchedThreads(), 0) << "period " << period;
        auto const last = [&](Testing::LoadedChain& chain) {
            return chain.chain().findModule("system-sounds")->getOutPortBuffer(0)->getRawData()[frames - 1];
        };
        ducked += last(every) != last(silent);
    }
    EXPECT_GT(ducked, 300u) << "voices were mixed and the music ducked";
}

// A player runs for days and its sets are changed at any time: a change in every period, for a million
// periods, leaves the heap as it was, the main loop freeing each replaced set between two periods.
TEST(ChainTest, AChangeInEveryPeriodForAMillionPeriodsLeavesTheHeapAsItWas)
{
    auto const changes = Testing::readTable("parameter-changes.txt");
    Testing::LogCapture quiet(7);
    Testing::LoadedChain every("every-type.xml");
    std::vector<tSample> const period(8, tSample(0.25));
    std::mt19937 random(5);
    auto const run = [&](unsigned int periods) {
        for (unsigned int i = 0; i < periods; ++i) {
            auto const& change = changes[random() % changes.size()];
            every.chain().findModule(change[0])->setParameter(change[1], change[2 + random() % 2]);
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
