// Changes a chain while `orvandeldsp run --realtime` plays it, through `orvandeldsp set` and `sound`, on a
// private bus, and checks what lands in the output file and when.
#include "support/BackgroundTool.h"
#include "support/PrivateDbus.h"

#include <cmath>
#include <csignal>
#include <thread>

namespace {

using namespace Zelmar::Testing;
using namespace std::chrono_literals;

constexpr int c_rate = 48000;
constexpr size_t c_period = 1024;
std::string const c_serving = "orvandeldsp: serving com.orvandeldsp.Chain on the session bus";

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// 24-bit stereo words whose values are multiples of 4, so that gains of -6 and -12 dB are exact.
std::vector<int32_t> stereoTone(size_t frames)
{
    return stereoWords(frames, [](size_t f) {
        return int32_t(std::lround(0.5 * 2097151.0 * std::sin(2.0 * M_PI * 440.0 * double(f) / c_rate)) * 4 *
                       256);
    });
}

bool periodIs(Sound const& out, std::vector<int32_t> const& in, size_t period, int divisor)
{
    size_t const end = std::min(in.size(), (period + 1) * c_period * 2);
    for (size_t i = period * c_period * 2; i < end; ++i) {
        if (out.samples[i] != in[i] / divisor)
            return false;
    }
    return true;
}

class OrvandeldspControlTest : public ToolTest
{
protected:
    std::vector<std::string> realtimeRun(std::string const& config)
    {
        return {"run", "--realtime", "--bus", "session", "--config", config, path("in.wav"), path("out.wav")};
    }
    static ToolResult client(std::vector<std::string> args)
    {
        args.insert(args.begin() + 1, {"--bus", "session"});
        return runTool(args);
    }
};

std::string const c_stereoGain = R"(<dsp>
  <module type="input" id="in"/>
  <stereo-module type="gain" id="volume"><parameter id="gain" type="double">0</parameter></stereo-module>
  <module type="output" id="out"><parameter id="interleave-pattern" type="string">01</parameter></module>
  <cable out="in" in="volume"/>
  <cable out="volume" in="out"/>
</dsp>)";

TEST_F(OrvandeldspControlTest, SetDuringARealtimeRunChangesTheLevelWhenItIsSent)
{
    PrivateDbus bus;
    ScopedBusAddress session("DBUS_SESSION_BUS_ADDRESS", bus.getAddress());
    auto const in = stereoTone(3 * c_rate);
    writeSound(path("in.wav"), SF_FORMAT_PCM_24, 2, in);
    BackgroundTool run(realtimeRun(writeConfig("gain.xml", c_stereoGain)), bus.getAddress());
    ASSERT_EQ(run.readLine(10s), c_serving);
    auto const served = Clock::now();

    std::this_thread::sleep_until(served + 1500ms);
    double const sent = secondsSince(served);
    auto const set = client({"set", "volume", "gain", "-12"});
    double const answered = secondsSince(served);
    EXPECT_EQ(set.status, 0) << set.err;
    ASSERT_EQ(run.wait(15s), 0);
    // Paced by the audio: three seconds of it take three seconds.
    EXPECT_GE(secondsSince(served), 2.95);
    EXPECT_EQ(run.readLine(1s).rfind("orvandeldsp: 144000 frames in, 144000 out", 0), 0u);

    auto const out = readSound(path("out.wav"));
    ASSERT_EQ(out.samples.size(), in.size());
    size_t const periods = (in.size() / 2 + c_period - 1) / c_period;
    size_t changed = 0;
    while (changed < periods && periodIs(out, in, changed, 1))
        ++changed;
    ASSERT_LT(changed, periods) << "the level never changed";
    // After the period the change landed in, every frame is exactly a quarter of its input.
    for (size_t period = changed + 1; period < periods; ++period)
        ASSERT_TRUE(periodIs(out, in, period, 4)) << "period " << period;
    double const at = double(changed * c_period) / c_rate;
    EXPECT_GE(at, sent - 0.25);
    EXPECT_LE(at, answered + 0.25);
}

TEST_F(OrvandeldspControlTest, SetFileSendsEveryLineAndRefusalsAreOneLine)
{
    PrivateDbus bus;
    ScopedBusAddress session("DBUS_SESSION_BUS_ADDRESS", bus.getAddress());
    // Long enough for four client runs, which take up to a second each under qemu-arm on a busy machine.
    auto const in = stereoTone(4 * c_rate);
    writeSound(path("in.wav"), SF_FORMAT_PCM_24, 2, in);
    std::string const config = writeConfig("two-gains.xml", R"(<dsp>
  <module type="input" id="in"/>
  <module type="gain" id="left"><parameter id="gain" type="double">0</parameter></module>
  <module type="gain" id="right"><parameter id="gain" type="double">0</parameter></module>
  <module type="output" id="out"><parameter id="interleave-pattern" type="string">01</parameter></module>
  <cable out="in[0]" in="left[0]"/>
  <cable out="in[1]" in="right[0]"/>
  <cable out="left[0]" in="out[0]"/>
  <cable out="right[0]" in="out[1]"/>
</dsp>)");
    BackgroundTool run(realtimeRun(config), bus.getAddress());
    ASSERT_EQ(run.readLine(10s), c_serving);

    auto const second = runTool(
        {"run", "--realtime", "--bus", "session", "--config", config, path("in.wav"), path("second.wav")});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err,
              "orvandeldsp: com.orvandeldsp.Chain is already served on the session bus (is another "
              "realtime run going?)\n");

    auto const fromFile =
        client({"set", "--file",
                writeConfig("levels.txt", "# both channels\n\nleft gain -12\n  right   gain  -6  \n")});
    EXPECT_EQ(fromFile.status, 0) << fromFile.err;

    auto const refused = client({"set", "left", "gain", "30"});
    expectFailure(refused, 1, "parameter gain of module left: must be below 24 dB, not 30");
    EXPECT_TRUE(isOneLine(refused.err)) << refused.err;
    // The service ignores modules the chain does not have.
    EXPECT_EQ(client({"set", "no-such-module", "gain", "3"}).status, 0);

    ASSERT_EQ(run.wait(15s), 0);
    auto const out = readSound(path("out.wav"));
    ASSERT_EQ(out.samples.size(), in.size());
    // The refused 30 dB left the file's -12 dB in place.
    for (size_t i = in.size() - 2 * c_period; i < in.size(); i += 2) {
        ASSERT_EQ(out.samples[i], in[i] / 4) << i;
        ASSERT_EQ(out.samples[i + 1], in[i + 1] / 2) << i;
    }
}

TEST_F(OrvandeldspControlTest, SoundsPlayLoopAndStopOnTheServedChain)
{
    PrivateDbus bus;
    ScopedBusAddress session("DBUS_SESSION_BUS_ADDRESS", bus.getAddress());
    // Two seconds past the last timed call, for the calls after it: an emulated client may take one.
    writeSound(path("in.wav"), SF_FORMAT_PCM_16, 2, std::vector<int32_t>(2 * 4 * c_rate, 0));
    BackgroundTool run(realtimeRun(writeConfig("sounds.xml", R"(<dsp>
  <module type="input" id="in"/>
  <module type="sounds" id="system-sounds"/>
  <module type="output" id="out"><parameter id="interleave-pattern" type="string">01</parameter></module>
  <cable out="in" in="system-sounds"/>
  <cable out="system-sounds" in="out"/>
</dsp>)")),
                       bus.getAddress());
    ASSERT_EQ(run.readLine(10s), c_serving);
    auto const served = Clock::now();

    // Sound 4 is the 30 ms touch click: every play is a short burst in the silence.
    std::this_thread::sleep_until(served + 500ms);
    double const played = secondsSince(served);
    EXPECT_EQ(client({"sound", "play", "4"}).status, 0);
    auto const invalid = client({"sound", "play", "10"});
    EXPECT_EQ(invalid.status, 1);
    EXPECT_EQ(invalid.err, "orvandeldsp: unable to play system sound\n");

    std::this_thread::sleep_until(served + 1200ms);
    double const looped = secondsSince(served);
    auto const loop = client({"sound", "loop", "4", "300"});
    ASSERT_EQ(loop.status, 0) << loop.err;
    ASSERT_FALSE(loop.out.empty());
    EXPECT_EQ(loop.out.find_first_not_of("0123456789"), loop.out.size() - 1) << loop.out;
    std::this_thread::sleep_until(served + 2000ms);
    EXPECT_EQ(client({"sound", "stop", loop.out.substr(0, loop.out.size() - 1)}).status, 0);
    double const stopped = secondsSince(served);
    // An id nobody has is only logged by the service.
    EXPECT_EQ(client({"sound", "stop", "4000000000"}).status, 0);
    ASSERT_EQ(run.wait(15s), 0);

    // Where bursts start: a sounding frame after at least 100 ms of silence.
    auto const out = readSound(path("out.wav"));
    std::vector<double> starts;
    size_t lastSounding = 0;
    for (size_t frame = 0; frame < out.samples.size() / 2; ++frame) {
        if (out.samples[2 * frame] == 0 && out.samples[2 * frame + 1] == 0)
            continue;
        if (starts.empty() || frame - lastSounding > c_rate / 10)
            starts.push_back(double(frame) / c_rate);
        lastSounding = frame;
    }
    ASSERT_GE(starts.size(), 3u);
    EXPECT_GE(starts[0], played - 0.25);
    EXPECT_LT(starts[0], looped - 0.25);
    // Every 300 ms between loop and stop, then nothing.
    EXPECT_GE(starts.size(), 1 + size_t((stopped - looped - 0.25) / 0.3));
    for (size_t i = 1; i < starts.size(); ++i) {
        EXPECT_GE(starts[i], looped - 0.25);
        EXPECT_LE(starts[i], stopped + 0.25);
    }
}

TEST_F(OrvandeldspControlTest, ClientsNameAMissingChainOrBusAndUsageMistakes)
{
    {
        PrivateDbus bus;
        ScopedBusAddress session("DBUS_SESSION_BUS_ADDRESS", bus.getAddress());
        for (auto const& args :
             {std::vector<std::string>{"set", "volume", "gain", "-6"}, {"sound", "play", "4"}}) {
            auto const result = client(args);
            EXPECT_EQ(result.status, 1);
            EXPECT_EQ(result.err, "orvandeldsp: no chain is being served on the session bus\n");
        }
    }
    std::string const in = path("in.wav");
    std::string const out = path("out.wav");
    writeSound(in, SF_FORMAT_PCM_16, 2, std::vector<int32_t>(2 * c_rate, 0));
    std::string const config = PROJECT_SOURCE_DIR "/tests/data/passthrough.xml";
    {
        PrivateDbus bus;
        BackgroundTool run({"run", "--realtime", "--bus", "session", "-c", config, in, out},
                           bus.getAddress());
        ASSERT_EQ(run.readLine(10s), c_serving);
        run.signal(SIGTERM);
        EXPECT_EQ(run.wait(5s), 1);
        EXPECT_FALSE(exists("out.wav"));
    }
    // Outside a ScopedBusAddress the session bus address leads nowhere.
    for (auto const& args : {std::vector<std::string>{"sound", "--bus", "session", "stop", "1"},
                             {"run", "--realtime", "--bus", "session", "-c", config, in, out}}) {
        auto const noBus = runTool(args);
        expectFailure(noBus, 1, "orvandeldsp: cannot reach the session bus: ", true);
        EXPECT_TRUE(isOneLine(noBus.err));
    }
    auto const missingFile = client({"set", "--file", path("missing.txt")});
    EXPECT_EQ(missingFile.status, 1);
    EXPECT_TRUE(isOneLine(missingFile.err));

    auto const badLine = client({"set", "--file", writeConfig("bad.txt", "volume gain -6\nvolume gain\n")});
    EXPECT_EQ(badLine.status, 2);
    EXPECT_EQ(badLine.err, "orvandeldsp: " + path("bad.txt") +
                               " line 2: expected MODULE KEY VALUE, not \"volume gain\"\n");

    for (auto const& args :
         std::vector<std::vector<std::string>>{{"set", "--bus", "session", "volume", "gain"},
                                               {"set", "--bus", "tram", "volume", "gain", "1"},
                                               {"set", "volume", "gain", "1", "--bus", "session"},
                                               {"sound", "--bus", "session", "loop", "4"},
                                               {"sound", "--bus", "session", "play", "x"},
                                               {"sound", "--bus", "session", "stop", "-1"},
                                               {"sound", "--bus", "session", "pause", "1"},
                                               {"run", "--realtime", "--drift", "10", in, out},
                                               {"run", "--realtime", "--detect", in, out},
                                               {"run", "--realtime", "--encode", path("o.flac"), in, out},
                                               {"run", "--realtime", "--sound", "1@0.5", in, out},
                                               {"run", "--bus", "session", in, out}}) {
        auto const result = runTool(args);
        expectFailure(result, 2, "orvandeldsp: ", true);
        if (args[1] == "--realtime")
            expectFailure(result, 2, "--realtime cannot be combined");
    }
}

} // namespace
