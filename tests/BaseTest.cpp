#include "base/Expiration.h"
#include "base/MainLoopCallback.h"
#include "base/Signal.h"
#include "base/Tracer.h"
#include "base/VolumeConversion.h"
#include "support/MainLoop.h"

#include <gtest/gtest.h>
#include <thread>
#include <vector>

using namespace Zelmar::Tools;
using Zelmar::Testing::runMainLoopUntil;

namespace {

// Counts how often it is written, to prove that dropped entries are never formatted.
struct CountedPiece
{
    int* writes;
};

std::ostream& operator<<(std::ostream& os, CountedPiece const& piece)
{
    ++*piece.writes;
    return os << "piece";
}

} // namespace

TEST(TracerTest, DropsEntriesBelowTheMinimumLevelBeforeFormattingAndJoinsPiecesWithSpaces)
{
    std::vector<LogBufferEntry> entries;
    Connection sink = Tracer::get().addSink([&](LogBufferEntry const& e) { entries.push_back(e); });
    int const previous = Tracer::get().getMinLevel();
    Tracer::get().setMinLevel(Tracer::Notice);
    int writes = 0;
    trace(Tracer::Info, "dropped", CountedPiece{&writes});
    trace(Tracer::Error, "value", 2.5, String("x"), 7u, CountedPiece{&writes});
    Tracer::get().setMinLevel(previous);
    EXPECT_EQ(writes, 1);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, 4);
    EXPECT_EQ(entries[0].message, "value 2.5 x 7 piece");
    EXPECT_EQ(entries[0].component, Tracer::getProcessName());
}

TEST(SignalTest, SlotsLiveWhileTheirConnectionLivesAndRunFrontToBack)
{
    Signal<void(int)> signal;
    std::vector<int> calls;
    Connection back = signal.connect([&](int v) { calls.push_back(v); });
    Connection front = signal.connectFront([&](int v) { calls.push_back(-v); });
    {
        Connection scoped = signal.connect([&](int v) { calls.push_back(100 * v); });
        signal(2);
    }
    signal(3);
    front.disconnect();
    signal(4);
    EXPECT_EQ(calls, (std::vector<int>{-2, 2, 200, -3, 3, 4}));
    EXPECT_EQ(signal.getNumConnections(), 1u);
}

TEST(MainLoopCallbackTest, SchedulesFromAnotherThreadRunOnceOnTheOwningContext)
{
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    int runs = 0;
    std::thread::id ranOn;
    {
        MainLoopCallback callback([&] {
            ++runs;
            ranOn = std::this_thread::get_id();
        });
        std::thread audio([&] {
            for (int i = 0; i < 100; ++i)
                callback.schedule();
        });
        audio.join();
        EXPECT_TRUE(callback.isScheduled());
        EXPECT_TRUE(runMainLoopUntil([&] { return runs > 0; }));
        Zelmar::Testing::runPendingMainLoopJobs();
        EXPECT_EQ(runs, 1) << "schedules before the run collapse into one";
        EXPECT_EQ(ranOn, std::this_thread::get_id());
        callback.schedule();
        EXPECT_TRUE(runMainLoopUntil([&] { return runs == 2; }));
    }
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
}

TEST(ExpirationTest, FiresOnceAfterItsTimeoutAndCanBeReArmedOrCancelled)
{
    int fired = 0;
    Expiration timer([&] { ++fired; });
    timer.refresh(0, 100, 0);
    EXPECT_EQ(timer.getTimeoutMicroseconds(), 100000u);
    gint64 const start = g_get_monotonic_time();
    EXPECT_TRUE(runMainLoopUntil([&] { return fired == 1; }));
    EXPECT_GE(g_get_monotonic_time() - start, 100000);
    EXPECT_FALSE(timer.isArmed());

    timer.setCallback([&] { fired += 10; });
    timer.refresh(0, 0, 500);
    timer.cancel();
    g_usleep(2000);
    Zelmar::Testing::runPendingMainLoopJobs();
    EXPECT_EQ(fired, 1) << "a cancelled timer does not fire";
    timer.refresh();
    EXPECT_TRUE(runMainLoopUntil([&] { return fired == 11; }));
}

TEST(VolumeConversionTest, FollowsTheDocumentedPointsAndRisesThroughout)
{
    for (auto const& [volume, db] : {std::pair{-5.0, -100.0},
                                     {0.0, -100.0},
                                     {1.0, -80.0},
                                     {10.0, -40.0},
                                     {25.0, -24.08},
                                     {50.0, -12.04},
                                     {75.0, -5.0},
                                     {100.0, 0.0},
                                     {150.0, 0.0}})
        EXPECT_NEAR(Zelmar::HW::VolumeConversion::mapToDb(volume), db, 0.005) << volume;
    for (double volume = 0.5; volume <= 100; volume += 0.5)
        EXPECT_GT(Zelmar::HW::VolumeConversion::mapToDb(volume),
                  Zelmar::HW::VolumeConversion::mapToDb(volume - 0.5))
            << volume;
}
