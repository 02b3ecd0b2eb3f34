#include "dsp/Delay.h"
#include "dsp/Gain.h"
#include "dsp/Limiter.h"
#include "dsp/PatchBay.h"

#include "support/ModuleHarness.h"

#include <benchmark/benchmark.h>

using namespace Zelmar;

namespace {

constexpr unsigned int c_frames = 1280;

// Reports the time per frame and channel of one full period (shown in seconds with an SI prefix).
void reportPerFrame(benchmark::State& state, unsigned int channels)
{
    state.counters["time/frame/ch"] =
        benchmark::Counter(double(c_frames * channels),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

template <class F> void runPeriods(benchmark::State& state, std::shared_ptr<Module> module, F&& beforePeriod)
{
    Testing::ModuleHarness harness(module);
    AudioBuffer signal(c_frames);
    signal.generateSine(0.9f, 997.0f, 48000.0f);
    std::vector<tSample> const samples(signal.getRawData(), signal.getRawData() + c_frames);
    for (unsigned int port = 0; port < module->getNumInPorts(); ++port)
        harness.setInput(port, samples);
    for (auto _ : state) {
        beforePeriod();
        module->process();
        benchmark::DoNotOptimize(module->getOutPort(0)->getRawData());
    }
    reportPerFrame(state, module->getNumInPorts());
}

void BM_GainFixed(benchmark::State& state)
{
    auto gain = std::make_shared<Gain>("g");
    gain->setParameters(Parameters{{"gain", "-3"}}, 48000);
    runPeriods(state, gain, [] {});
}

void BM_GainFading(benchmark::State& state)
{
    auto gain = std::make_shared<Gain>("g");
    gain->setParameters(Parameters{{"gain", "-12"}}, 48000);
    bool up = true;
    runPeriods(state, gain, [&] {
        if (!gain->isFading()) {
            gain->fadeTo(tSample(up ? 6.0 : -12.0));
            up = !up;
        }
    });
}

void BM_Limiter(benchmark::State& state)
{
    auto limiter = std::make_shared<Limiter>("l");
    limiter->setParameters(Parameters{{"attack", "1"}, {"release", "100"}, {"threshold", "-6"}}, 48000);
    runPeriods(state, limiter, [] {});
}

void BM_Delay(benchmark::State& state)
{
    auto delay = std::make_shared<Delay>("d");
    delay->setParameters(Parameters{{"delay", "10000"}}, 48000);
    runPeriods(state, delay, [] {});
}

void BM_PatchBayMono(benchmark::State& state)
{
    auto bay = std::make_shared<PatchBay>("p");
    bay->setRoutingMode(HW::ChannelConfiguration::Mono);
    runPeriods(state, bay, [] {});
}

} // namespace

BENCHMARK(BM_GainFixed);
BENCHMARK(BM_GainFading);
BENCHMARK(BM_Limiter);
BENCHMARK(BM_Delay);
BENCHMARK(BM_PatchBayMono);
