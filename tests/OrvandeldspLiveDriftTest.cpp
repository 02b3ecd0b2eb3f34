// `orvandeldsp live` between two devices whose clocks drift apart: the tests' sound card on its virtual
// clock, capture running 100 ppm fast or slow against playback, for an hour of audio.
#include "support/LiveTool.h"

#include <cstdio>

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

using OrvandeldspLiveDriftTest = testing::TestWithParam<DriftCase>;

TEST_P(OrvandeldspLiveDriftTest, AnHourOfDriftRunsWithoutXrunOnlyWhenCompensated)
{
    auto const& c = GetParam();
    ScopedVariable const card("ALSA_CONFIG_PATH", ALSA_TEST_CONFIG_DIR "/live-pcm.conf");
    char capture[64];
    std::snprintf(capture, sizeof capture, "livetest:VIRTUAL=1,PPM=%g", c.ppm);
    // Through a time stretcher, or straight through.
    auto const result =
        runTool({"live", "--no-service", "--priority", "0", "-c",
                 PROJECT_SOURCE_DIR +
                     std::string(c.compensated ? "/configs/drift.xml" : "/tests/data/passthrough.xml"),
                 "--period", std::to_string(c_period), "--periods", std::to_string(c_periods), "--frames",
                 std::to_string(c_hourOfFrames), "--capture", capture, "--playback", "livetest:VIRTUAL=1"});
    ASSERT_EQ(result.status, 0) << result.err;
    auto const from = [&](char const* text) {
        return result.out.c_str() + std::min(result.out.find(text), result.out.size());
    };
    unsigned int xruns[2] = {};
    int lowest = 0, highest = 0;
    double correction = 0;
    ASSERT_EQ(std::sscanf(from("xruns: "), "xruns: capture %u, playback %u", &xruns[0], &xruns[1]), 2);
    ASSERT_EQ(std::sscanf(from("; latency "), "; latency %*d frames (%d to %d)", &lowest, &highest), 2);
    bool const corrected =
        std::sscanf(from("; drift corrected by "), "; drift corrected by %lf", &correction) == 1;
    std::string const warning = "drift between the capture and playback clocks is not compensated";
    size_t const warned = result.err.find(warning);
    EXPECT_EQ(warned == std::string::npos           ? 0
              : warned == result.err.rfind(warning) ? 1
                                                    : 2,
              c.compensated ? 0 : 1)
        << "warned once when not compensated: " << result.err;

    if (c.compensated) {
        EXPECT_EQ(xruns[0] + xruns[1], 0u) << result.out;
        EXPECT_GE(lowest, c_latencyAtStart - c_compensatedSwing) << result.out;
        EXPECT_LE(highest, c_latencyAtStart + 1 + c_compensatedSwing) << result.out;
        // Every frame of drift was corrected, to a few frames in the 172.8 million.
        ASSERT_TRUE(corrected) << result.out;
        EXPECT_NEAR(correction, c.ppm, 0.1);
    } else {
        // Fast capture overruns its buffer, slow capture lets the playback run dry.
        EXPECT_GT(xruns[c.ppm > 0 ? 0 : 1], 0u) << result.out;
        EXPECT_NE(result.out.find("; drift not compensated"), std::string::npos) << result.out;
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
