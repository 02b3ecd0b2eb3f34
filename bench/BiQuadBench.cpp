#include "dsp/BiQuadSection.h"
#include "dsp/Chain.h"
#include "dsp/ModuleFactory.h"
#include "dsp/precalculated/PrecalculatedBiQuadKernels.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <vector>

using namespace Zelmar;

namespace {

constexpr unsigned int c_frames = 1024;

std::vector<tSample> noise(unsigned int seed)
{
    std::mt19937 random(seed);
    std::uniform_int_distribution<int32_t> halfScale(-0x04000000, 0x04000000);
    std::vector<tSample> samples(c_frames);
    for (auto& s : samples)
        s = tSample(halfScale(random));
    return samples;
}

void reportPerFrame(benchmark::State& state, unsigned int channels)
{
    state.counters["per_frame_and_channel"] =
        benchmark::Counter(double(c_frames) * channels,
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

BiQuadSection peak(double gainDb)
{
    BiQuadSection s;
    s.design(AudioFilter::Characteristic::Peak, 48000, 1000, 1.0, gainDb);
    return s;
}

// The yardstick: only the recursion through z1 (y = z1 + b0 x; z1 = b1 x - a1 y), one multiply, shift,
// subtract and add on the carried path. The filter loops carry y instead and add everything but a1 y
// before y is known, which takes the add off that path, so they may run below it.
void BM_LoopCarriedPathReference(benchmark::State& state)
{
    BiQuadSection const c = peak(5);
    std::vector<tSample> const in = noise(1);
    std::vector<tSample> out(c_frames);
    tSample z1;
    for (auto _ : state) {
        tSample s = z1;
        for (unsigned int i = 0; i < c_frames; ++i) {
            tSample const x = in[i];
            tSample const y = s + c.b0 * x;
            out[i] = y;
            s = c.b1 * x - c.a1 * y;
        }
        z1 = s;
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    reportPerFrame(state, 1);
}
BENCHMARK(BM_LoopCarriedPathReference);

void BM_GenericBiQuadMono(benchmark::State& state)
{
    BiQuadSection const c = peak(5);
    std::vector<tSample> const in = noise(1);
    std::vector<tSample> out(c_frames);
    tSample z1, z2;
    for (auto _ : state) {
        c.run(in.data(), out.data(), c_frames, z1, z2);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    reportPerFrame(state, 1);
}
BENCHMARK(BM_GenericBiQuadMono);

void runKernel(benchmark::State& state, tBiQuadKernel kernel)
{
    std::vector<tSample> const in = noise(1);
    std::vector<tSample> out(c_frames);
    tSample z1, z2;
    for (auto _ : state) {
        kernel(in.data(), out.data(), c_frames, z1, z2);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    reportPerFrame(state, 1);
}

void BM_PrecalculatedKernelHipass(benchmark::State& state)
{
    runKernel(state, &hipass_48000_f60_q700_g0);
}
BENCHMARK(BM_PrecalculatedKernelHipass);

void BM_PrecalculatedKernelPeak(benchmark::State& state)
{
    runKernel(state, &peak_48000_f2900_q4000_g6000);
}
BENCHMARK(BM_PrecalculatedKernelPeak);

// Whole modules, fed by a source whose buffers hold noise.
class Source : public Module
{
public:
    explicit Source(Tools::String const& id) : Module(id) {}
    unsigned int getNumOutPorts() const override { return 2; }
    unsigned int getNumInPorts() const override { return 0; }
    void process() override {}
};

void runStereoModule(benchmark::State& state, char const* type, Parameters const& params)
{
    Chain chain(48000);
    auto source = std::make_shared<Source>("source");
    std::shared_ptr<Module> module(ModuleFactory::get().createModule(type, "bench"));
    source->preSetup(chain, c_frames);
    source->postSetup(c_frames);
    source->getOutPort(0)->getUnderlyingStorage() = noise(1);
    source->getOutPort(1)->getUnderlyingStorage() = noise(2);
    module->preSetup(chain, c_frames);
    module->setInPortBuffer(0, source, 0);
    module->setInPortBuffer(1, source, 1);
    module->postSetup(c_frames);
    module->setParameters(params, 48000);
    for (auto _ : state) {
        module->process();
        benchmark::ClobberMemory();
    }
    reportPerFrame(state, 2);
}

void BM_StereoBiQuad(benchmark::State& state)
{
    runStereoModule(state, "stereo-biquad",
                    {{"type", "peak"}, {"frequency", "1000"}, {"q", "1"}, {"gain", "5"}});
}
BENCHMARK(BM_StereoBiQuad);

void BM_ThreeBandStereoEQ(benchmark::State& state)
{
    runStereoModule(state, "stereo-equalizer",
                    {{"low-gain", "3"}, {"mid-gain", "-2"}, {"high-gain", "4"}, {"gain-correction", "true"}});
}
BENCHMARK(BM_ThreeBandStereoEQ);

} // namespace
