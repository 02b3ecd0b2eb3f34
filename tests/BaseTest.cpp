#include "base/Expiration.h"
#include "base/MainLoopCallback.h"
#include "base/Signal.h"
#include "base/String.h"
#include "base/Tracer.h"
#include "base/VolumeConversion.h"
#include "dsp/Parameters.h"
#include "support/HeapWatch.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/Thrown.h"
#include "tools/PeriodTimeHistogram.h"
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace Zelmar::Tools;
using Zelmar::Parameters;
using Zelmar::HW::VolumeConversion::mapToDb;
using Zelmar::Testing::runMainLoopUntil;
using Zelmar::Testing::thrownMessage;

namespace {

// Counts how often it is written, to prove that dropped entries are never formatted.
struct CountedPiece
{
    int* writes;
    friend std::ostream& operator<<(std::ostream& os, CountedPiece const& piece)
    {
        ++*piece.writes;
        return os << "piece";
    }
};

} // namespace

TEST(TracerTest, DropsEntriesBelowTheMinimumLevelBeforeFormattingAndJoinsPiecesWithSpaces)
{
    Zelmar::Testing::LogCapture log(Tracer::Notice);
    std::vector<std::string> components;
    Connection sink =
        Tracer::get().addSink([&](LogBufferEntry const& e) { components.push_back(e.component.str()); });
    int writes = 0;
    trace(Tracer::Info, "dropped", CountedPiece{&writes});
    trace(Tracer::Error, "value", 2.5, String("x"), 7u, CountedPiece{&writes});
    EXPECT_EQ(writes, 1);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"4 value 2.5 x 7 piece"});
    EXPECT_EQ(components, std::vector<std::string>{Tracer::getProcessName().str()});
}

TEST(SignalTest, SlotsLiveWhileTheirConnectionLivesAndRunFrontToBack)
{
    Signal<void(int)> signal;
    std::vector<int> calls;
    Connection back = signal.connect([&](int v) { calls.push_back(v); });
    Connection front = signal.connectFront([&](int v) { calls.push_back(-v); });
    signal.connect([&](int v) { calls.push_back(100 * v); }); // dropped with its connection
    signal(2);
    front.disconnect();
    signal(3);
    EXPECT_EQ(calls, (std::vector<int>{-2, 2, 3}));
}

// A long-running host makes and drops a chain (each connecting to the daemon client's signal) at every
// reload, while that signal may never fire.
TEST(SignalTest, ASilentSignalFreesTheSlotsDroppedBeforeTheNextConnects)
{
    Signal<void(int)> signal;
    auto const connectAndDrop = [&] {
        for (int i = 0; i < 1000; ++i)
            signal.connect([](int) {});
    };
    connectAndDrop();
    long const before = Zelmar::Testing::heapBytesInUse();
    connectAndDrop();
    // Each slot with its handler takes some 100 bytes; one left behind per connect would show as 100 kB.
    EXPECT_LT(Zelmar::Testing::heapBytesInUse() - before, 1000 * 8);
}

TEST(MainLoopCallbackTest, SchedulesFromAnotherThreadCollapseIntoOneRunOnTheOwningContext)
{
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    {
        std::vector<std::thread::id> runs;
        MainLoopCallback callback([&] { runs.push_back(std::this_thread::get_id()); });
        std::thread([&] {
            for (int i = 0; i < 100; ++i)
                callback.schedule();
        }).join();
        EXPECT_TRUE(runMainLoopUntil([&] { return !runs.empty(); }));
        Zelmar::Testing::runPendingMainLoopJobs();
        EXPECT_EQ(runs, std::vector<std::thread::id>(1, std::this_thread::get_id()));
        callback.schedule();
        EXPECT_TRUE(runMainLoopUntil([&] { return runs.size() == 2; }));
    }
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
}

// The cancelled timer is due first, so it would be seen if cancelling failed.
TEST(ExpirationTest, FiresOnceAfterItsTimeoutUnlessCancelledAndReArms)
{
    std::string fired;
    Expiration cancelled([&] { fired += 'c'; }), timer([&] { fired += 't'; });
    cancelled.refresh(0, 1, 0);
    cancelled.cancel();
    timer.refresh(0, 100, 0);
    gint64 const start = g_get_monotonic_time();
    EXPECT_TRUE(runMainLoopUntil([&] { return !fired.empty(); }));
    EXPECT_GE(g_get_monotonic_time() - start, 100000);
    EXPECT_FALSE(timer.isArmed());
    timer.refresh();
    EXPECT_TRUE(runMainLoopUntil([&] { return fired.size() == 2; }));
    EXPECT_EQ(fired, "tt");
}

TEST(VolumeConversionTest, FollowsTheDocumentedPointsAndRisesThroughout)
{
    double const volumes[] = {-5, 0, 1, 10, 25, 50, 75, 100, 150};
    double const decibels[] = {-100, -100, -80, -40, -24.08, -12.04, -5, 0, 0};
    for (unsigned int i = 0; i < std::size(volumes); ++i)
        EXPECT_NEAR(mapToDb(volumes[i]), decibels[i], 0.005) << volumes[i];
    for (double volume = 0.5; volume <= 100; volume += 0.5)
        EXPECT_GT(mapToDb(volume), mapToDb(volume - 0.5)) << volume;
}

// Each word in a case of its own, so that none of the three is compared case-sensitively unnoticed.
TEST(ParametersTest, BooleansAreOneOrAWordInAnyCaseAndGettersParseLikeTheCLibrary)
{
    std::pair<char const*, bool> const cases[] = {{"1", true},   {"YES", true},  {"True", true},
                                                  {"oN", true},  {"0", false},   {"2", false},
                                                  {" 1", false}, {"yes ", false}};
    for (auto const& [value, expected] : cases)
        EXPECT_EQ((Parameters{{"k", value}}.getBool("k")), expected) << value;
    Parameters const p{{"int", "12abc"}, {"double", " 2.5"}, {"empty", ""}, {"a", "x"}, {"a", "1"}};
    EXPECT_EQ(p.get("none"), "0");
    EXPECT_EQ(p.getString("none"), "");
    EXPECT_EQ((std::vector<double>{double(p.getInt("none")), double(p.getInt("empty")), p.getDouble("none"),
                                   p.getDouble("empty")}),
              std::vector<double>(4, 0.0));
    EXPECT_FALSE(p.getBool("none"));
    EXPECT_EQ(p.getInt("int"), 12);
    EXPECT_EQ(p.getDouble("double"), 2.5);
    EXPECT_EQ(p.getString("a"), "1") << "of a duplicate key the last value is kept";
    EXPECT_EQ(Parameters().describe(), "");

    Parameters const bad{{"text", "abc"}, {"huge", "1e999"}, {"long", "99999999999"}};
    EXPECT_EQ(thrownMessage<std::invalid_argument>([&] { bad.getInt("text"); }), "stoi");
    EXPECT_EQ(thrownMessage<std::invalid_argument>([&] { bad.getDouble("text"); }), "stod");
    EXPECT_EQ(thrownMessage<std::out_of_range>([&] { bad.getInt("long"); }), "stoi");
    EXPECT_EQ(thrownMessage<std::out_of_range>([&] { bad.getDouble("huge"); }), "stod");
}

TEST(StringTest, TemplatesFillNumberedPlaceholdersComparisonsAndDotSafeNames)
{
    EXPECT_EQ(String::format("gain %0 dB", 3), "gain 3 dB");
    EXPECT_EQ(String::format("100%%"), "100%");
    EXPECT_EQ(String::format("%1 before %0[%1]", String("eq"), 12u), "12 before eq[12]");
    EXPECT_EQ(String::format("missing %3!", 1), "missing !");
    EXPECT_EQ(String::format("%s", 1),
              "do not use printf like patterns, instead use %0, %1, %2... and %% for the % itself -> %s");
    EXPECT_EQ(String::format("50%"), "last character is a single % -> probably you meant %%? ->50%");
    EXPECT_TRUE(String("YeS").equals("yes", false) && !String("YeS").equals("yes", true));
    EXPECT_TRUE(String("ab") < String("abc") && String("B") < String("a"));
    EXPECT_EQ(String("eq-1.left").replaceNonAlphanumericChars('_'), "eq_1_left");
}

TEST(PeriodTimeHistogramTest, QuantilesReadBackWithinATenthOfAPercent)
{
    auto const histogram = std::make_unique<Zelmar::Host::PeriodTimeHistogram>();
    EXPECT_EQ(histogram->quantile(0.5), 0u);
    // 1 us to 10 ms in 10 ns steps, then one period 20 minutes long, beyond the last bin.
    for (uint64_t ns = 1000; ns <= 10000000; ns += 10)
        histogram->record(ns);
    uint64_t const longest = 1200000000000;
    histogram->record(longest);
    double const quantiles[] = {0.0, 0.5, 0.99, 0.999, 1.0};
    double const expected[] = {1000, 5000500, 9900100, 9990010, double(longest)};
    for (unsigned int i = 0; i < std::size(quantiles); ++i)
        EXPECT_NEAR(double(histogram->quantile(quantiles[i])), expected[i], expected[i] / 1024)
            << quantiles[i];
    EXPECT_EQ(histogram->getMax(), longest);
    EXPECT_EQ(histogram->getCount(), 999902u);
}
