// The live host's period loop in this process, on the tests' own sound card, where its heap calls
// are counted as for a chain's process(), and where its main loop is the test's.
#include "tools/LivePeriodLoop.h"
#include "support/HeapWatch.h"
#include "tools/AlsaPcm.h"
#include "tools/LiveChain.h"
#include "tools/MainContext.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <thread>

using namespace Zelmar;
using namespace Zelmar::Host;

TEST(LivePeriodLoopTest, PeriodsDriftCompensationXrunRecoveryAChainSwapAndTheFadeOutNeverTouchTheHeap)
{
    setenv("ALSA_CONFIG_PATH", ALSA_TEST_CONFIG_DIR "/live-pcm.conf", 1);
    snd_config_update_free_global();
    std::string const config = PROJECT_SOURCE_DIR "/configs/live-line-in.xml";
    AlsaPcm::Setup setup;
    setup.periodFrames = 256;
    // One device through mmap, the other through readi/writei; each runs over once. The capture's clock
    // runs 1000 ppm fast, so that the line-in's compensator drops frames within the run.
    AlsaPcm capture("livetest:VIRTUAL=1,PPM=1000,XRUN=10000", SND_PCM_STREAM_CAPTURE, setup);
    AlsaPcm playback("livetest:VIRTUAL=1,MMAP=1,XRUN=20000", SND_PCM_STREAM_PLAYBACK, setup);
    ASSERT_TRUE(playback.usesMmap() && !capture.usesMmap());
    auto const telemetry = std::make_unique<LiveTelemetry>();
    LivePeriodLoop loop(std::make_unique<LiveChain>(config, LiveChain::Needs{48000, 0, true}), capture,
                        playback, {setup.periodFrames, 48000, 0}, *telemetry);

    std::atomic<bool> stop{false};
    int heapCalls = -1;
    std::thread audio([&] {
        Testing::takeHeapCallsOfWatchedThreads();
        Testing::watchHeapOnThisThread(true);
        loop.run(stop);
        Testing::watchHeapOnThisThread(false);
        heapCalls = Testing::takeHeapCallsOfWatchedThreads();
    });
    while (telemetry->frames.load() < 12000)
        std::this_thread::yield();
    LiveChain const* const first = &loop.getChain();
    auto next = std::make_unique<LiveChain>(config, LiveChain::Needs{48000, 2, true});
    bool swapped = false;
    ASSERT_TRUE(loop.offer(next, [&] { swapped = true; }));
    EXPECT_FALSE(loop.offer(next, {})) << "one handover at a time";
    // The replaced chain is destroyed here, on the main loop.
    EXPECT_TRUE(dispatchMainContextUntil([&] { return swapped; }, 10.0));
    EXPECT_NE(&loop.getChain(), first);
    while (telemetry->frames.load() < 30000)
        std::this_thread::yield();
    stop.store(true);
    audio.join();

    EXPECT_EQ(heapCalls, 0);
    EXPECT_EQ(loop.describeFailure(), "");
    EXPECT_EQ(telemetry->xruns[LiveTelemetry::c_capture].load(), 1u);
    EXPECT_EQ(telemetry->xruns[LiveTelemetry::c_playback].load(), 1u);
    EXPECT_GE(telemetry->frames.load(), 30000u + 4800u) << "the fade-out was played";
    EXPECT_GT(telemetry->framesDropped.load(), 0u);
}
