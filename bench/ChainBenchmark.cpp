#include "dsp/Chain.h"
#include "dsp/FormatConversion.h"
#include "dsp/InputStage.h"
#include "dsp/OutputStage.h"
#include "support/MemoryAlsaBuffers.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <ctime>

using namespace Zelmar;

namespace {

constexpr unsigned int c_rate = 48000;
constexpr unsigned int c_period = 1024;

// A chain from configs/ fed a period of sines on both inputs, as a host would.
struct ChainRig
{
    ChainRig(char const* config, bool fuse, bool profile = false) : chain(c_rate)
    {
        chain.load(Tools::String(PROJECT_SOURCE_DIR "/configs/") + config, false);
        chain.fuseCascades(fuse);
        chain.enableProfile(profile);
        chain.compile();
        Testing::attachHostBuffers(chain, capture, playback)->setMute(false);
        for (unsigned int channel = 0; channel < 2; ++channel) {
            AudioBuffer sine(c_period);
            sine.generateSine(0.5f, 997.0f + 10.0f * channel, float(c_rate));
            capture.getChannel(channel).setPeriod(sine.getUnderlyingStorage());
        }
    }

    Chain chain;
    Testing::MemoryAlsaBuffers capture{2}, playback{8};
};

// Whole chains: items are frames, so the report's items/s divided by the rate is the real-time factor.
// Arguments: fused cascades (1) or module by module (0), and profiling on (1) or off (0).
void runChain(benchmark::State& state, char const* config)
{
    ChainRig rig(config, state.range(0) != 0, state.range(1) != 0);
    for (auto _ : state) {
        rig.chain.process();
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * c_period);
    state.counters["realtime_factor"] =
        benchmark::Counter(double(state.iterations()) * c_period / c_rate, benchmark::Counter::kIsRate);
}

void BM_DefaultChain(benchmark::State& state)
{
    runChain(state, "default.xml");
}
BENCHMARK(BM_DefaultChain)->Args({1, 0})->Args({1, 1});

void BM_TenBandChain(benchmark::State& state)
{
    runChain(state, "ten-band-eq.xml");
}
BENCHMARK(BM_TenBandChain)->Args({0, 0})->Args({1, 0})->Args({1, 1});

// The thread's own processor time in seconds: on a shared machine, wall time also counts the others.
double threadSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + 1e-9 * double(now.tv_nsec);
}

// What one section of the ten-band equaliser costs per channel-sample: its chain's time minus the
// pass-through chain's, both timed in every iteration so that they see the same load, in the thread's
// processor time. Argument: fused cascades (1) or module by module (0).
void BM_TenBandSectionCost(benchmark::State& state)
{
    ChainRig bands("ten-band-eq.xml", state.range(0) != 0), through("pass-through.xml", true);
    for (auto _ : state) {
        double const start = threadSeconds();
        through.chain.process();
        double const between = threadSeconds();
        bands.chain.process();
        double const end = threadSeconds();
        benchmark::ClobberMemory();
        state.SetIterationTime(std::max(0.0, (end - between) - (between - start)));
    }
    state.counters["per_section_and_channel_sample"] = benchmark::Counter(
        10.0 * 2 * c_period, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_TenBandSectionCost)->Arg(0)->Arg(1)->UseManualTime();

// One channel of one period each way, as a host's buffer wrapper does it: ns per sample.
void BM_FormatConversion(benchmark::State& state)
{
    auto const format = static_cast<snd_pcm_format_t>(state.range(0));
    std::vector<tSample> samples(c_period);
    std::vector<guint8> pcm(4 * c_period);
    for (auto _ : state) {
        FormatConversion::convertTo(format, samples.data(), pcm.data(), c_period);
        FormatConversion::convertFrom(format, pcm.data(), samples.data(), c_period);
        benchmark::DoNotOptimize(samples.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * c_period * 2);
}
BENCHMARK(BM_FormatConversion)
    ->Arg(SND_PCM_FORMAT_S16_LE)
    ->Arg(SND_PCM_FORMAT_S24_3LE)
    ->Arg(SND_PCM_FORMAT_S32_LE);

} // namespace
