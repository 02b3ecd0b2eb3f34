#include "base/MainLoopCallback.h"
#include "base/Expiration.h"
#include "support/MainLoop.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace Zelmar::Tools;

namespace {

// Iterates the thread's default context until the predicate holds or a generous bound passes.
template <class P>
bool iterateUntil(P&& done, GMainContext* context = nullptr, gint64 timeoutUs = 5 * G_USEC_PER_SEC)
{
    gint64 const end = g_get_monotonic_time() + timeoutUs;
    while (!done() && g_get_monotonic_time() < end) {
        if (!g_main_context_iteration(context, false))
            g_usleep(100);
    }
    return done();
}

} // namespace

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
        EXPECT_TRUE(iterateUntil([&] { return runs > 0; }, context));
        while (g_main_context_iteration(context, false)) {
        }
        EXPECT_EQ(runs, 1) << "schedules before the run collapse into one";
        EXPECT_EQ(ranOn, std::this_thread::get_id());
        callback.schedule();
        EXPECT_TRUE(iterateUntil([&] { return runs == 2; }, context));
    }
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
}

TEST(ExpirationTest, FiresOnceAfterItsTimeoutAndCanBeReArmed)
{
    int fired = 0;
    Expiration timer([&] { ++fired; });
    EXPECT_EQ(timer.getTimeoutMicroseconds(), 0u);
    timer.refresh(0, 100, 0);
    EXPECT_EQ(timer.getTimeoutMicroseconds(), 100000u);
    gint64 const start = g_get_monotonic_time();
    EXPECT_TRUE(iterateUntil([&] { return fired == 1; }));
    EXPECT_GE(g_get_monotonic_time() - start, 100000);
    EXPECT_FALSE(timer.isArmed());

    timer.setCallback([&] { fired += 10; });
    timer.refresh(0, 0, 500);
    timer.cancel();
    g_usleep(2000);
    Zelmar::Testing::runPendingMainLoopJobs();
    EXPECT_EQ(fired, 1) << "a cancelled timer does not fire";
    timer.refresh();
    EXPECT_TRUE(iterateUntil([&] { return fired == 11; }));
}
