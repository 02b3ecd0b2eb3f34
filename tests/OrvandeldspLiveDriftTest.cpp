// `orvandeldsp live` between two devices whose clocks drift apart: the tests' sound card on its virtual
// clock, capture running 100 ppm fast or slow against playback, for an hour of audio.
#include "support/LiveTool.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace {

using namespace Zelmar::Testing;

constexpr long long c_hourOfFrames = 48000LL * 3600;
constexpr int c_period = 1024;
constexpr int c_periods = 3;

// The first latency the host measures is the primed playback buffer, plus at most the frame the capture
// is ahead by then. The compensator orders its first correction once the smoothed sign of the deltas
// passes 0.5: from the worst start, -1, that takes 28 periods (1 - 2 * 0.95^n > 0.5), in which 100 ppm
// of 1024-frame periods add 2.9 frames; with the frame a delta must reach before it counts and a frame
// of rounding in each device's position, the latency stays within 5 frames of where it started.
constexpr int c_latencyAtStart = c_periods * c_period;
constexpr int c_compensatedSwing = 5;

struct DriftCase
{
    double ppm;
    bool compensated;
};

void PrintTo(DriftCase const& c, std::ostream* out)
{
    *out << c.ppm << " ppm" << (c.compensated ? ", compensated" : "");
}

class OrvandeldspLiveDriftTest : public LiveToolTest, public testing::WithParamInterface<DriftCase>
{
protected:
    // Stereo through the line-in's time stretcher, or straight through.
    std::string config(bool compensated) const
    {
        return compensated ? writeConfig("drift.xml", R"(<dsp>
  <module type="input" id="in"/>
  <stereo-module type="timestretcher" id="line-in-timestretcher"/>
  <module type="output" id="out"><parameter id="interleave-pattern" type="string">01</parameter></module>
  <cable out="in" in="line-in-timestretcher"/>
  <cable out="line-in-timestretcher" in="out"/>
</dsp>)")
                           : PROJECT_SOURCE_DIR "/tests/data/passthrough.xml";
    }
};

TEST_P(OrvandeldspLiveDriftTest, AnHourOfDriftRunsWithoutXrunOnlyWhenCompensated)
{
    auto const& c = GetParam();
    char capture[64];
    std::snprintf(capture, sizeof capture, "livetest:VIRTUAL=1,PPM=%g", c.ppm);
    auto const result =
        runTool({"live", "--no-service", "--priority", "0", "-c", config(c.compensated), "--period",
                 std::to_string(c_period), "--periods", std::to_string(c_periods), "--frames",
                 std::to_string(c_hourOfFrames), "--capture", capture, "--playback", "livetest:VIRTUAL=1"});
    ASSERT_EQ(result.status, 0) << result.err;
    auto const summary = result.out.find("xruns: ");
    ASSERT_NE(summary, std::string::npos) << result.out;
    unsigned int xruns[2] = {};
    ASSERT_EQ(
        std::sscanf(result.out.c_str() + summary, "xruns: capture %u, playback %u", &xruns[0], &xruns[1]), 2);
    int now = 0, lowest = 0, highest = 0;
    auto const latency = result.out.find("; latency ");
    ASSERT_NE(latency, std::string::npos) << result.out;
    ASSERT_EQ(
        std::sscanf(result.out.c_str() + latency, "; latency %d frames (%d to %d)", &now, &lowest, &highest),
        3);
    double correction = 0;
    auto const drift = result.out.find("; drift corrected by ");
    std::string const warning = "drift between the capture and playback clocks is not compensated";
    bool const warned = result.err.find(warning) != std::string::npos;

    if (c.compensated) {
        EXPECT_EQ(xruns[0] + xruns[1], 0u) << result.out;
        EXPECT_GE(lowest, c_latencyAtStart - c_compensatedSwing) << result.out;
        EXPECT_LE(highest, c_latencyAtStart + 1 + c_compensatedSwing) << result.out;
        // Every frame of drift was corrected, to a few frames in the 172.8 million.
        ASSERT_NE(drift, std::string::npos) << result.out;
        ASSERT_EQ(std::sscanf(result.out.c_str() + drift, "; drift corrected by %lf ppm", &correction), 1);
        EXPECT_NEAR(correction, c.ppm, 0.1);
        EXPECT_FALSE(warned) << result.err;
    } else {
        // Fast capture overruns its buffer, slow capture lets the playback run dry.
        EXPECT_GT(xruns[c.ppm > 0 ? 0 : 1], 0u) << result.out;
        EXPECT_NE(result.out.find("; drift not compensated"), std::string::npos) << result.out;
        EXPECT_TRUE(warned) << result.err;
        EXPECT_EQ(result.err.find(warning), result.err.rfind(warning)) << "warned once: " << result.err;
    }
}

INSTANTIATE_TEST_SUITE_P(Drift, OrvandeldspLiveDriftTest,
                         testing::Values(DriftCase{100, true}, DriftCase{-100, true}, DriftCase{100, false},
                                         DriftCase{-100, false}),
                         [](testing::TestParamInfo<DriftCase> const& info) {
                             return std::string(info.param.ppm > 0 ? "CaptureFast" : "CaptureSlow") +
                                    (info.param.compensated ? "Compensated" : "Uncompensated");
                         });

} // namespace
