#include "dsp/Chain.h"
#include "dsp/FormatConversion.h"
#include "dsp/InputStage.h"
#include "dsp/OutputStage.h"
#include "support/MemoryAlsaBuffers.h"

#include <benchmark/benchmark.h>

using namespace Zelmar;

namespace {

constexpr unsigned int c_rate = 48000;
constexpr unsigned int c_period = 1024;

// Whole chains: items are frames, so the report's items/s divided by the rate is the real-time factor.
void runChain(benchmark::State& state, char const* config)
{
    Chain chain(c_rate, Tools::String(PROJECT_SOURCE_DIR "/configs/") + config);
    Testing::MemoryAlsaBuffers capture(2), playback(8);
    Testing::attachHostBuffers(chain, capture, playback)->setMute(false);
    for (unsigned int channel = 0; channel < 2; ++channel) {
        AudioBuffer sine(c_period);
        sine.generateSine(0.5f, 997.0f + 10.0f * channel, float(c_rate));
        capture.getChannel(channel).setPeriod(sine.getUnderlyingStorage());
    }
    for (auto _ : state) {
        chain.process();
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
BENCHMARK(BM_DefaultChain);

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
BENCHMARK(BM_FormatConversion)->Arg(SND_PCM_FORMAT_S16_LE)->Arg(SND_PCM_FORMAT_S24_3LE)->Arg(SND_PCM_FORMAT_S32_LE);

} // namespace
