#include "dsp/FlacEncoder.h"

#include "support/ModuleHarness.h"

#include <benchmark/benchmark.h>
#include <glib.h>

using namespace Zelmar;

namespace {

constexpr unsigned int c_period = 1280;

// A reader that takes the pairs and throws them away, so only the audio thread's side is measured.
class DiscardingEncoder : public FlacEncoder
{
public:
    DiscardingEncoder() : FlacEncoder("bench") {}
    ~DiscardingEncoder() override { stopEncoding(); }

protected:
    unsigned int readOrWait(tPair* buffer, unsigned int maxPairs) override
    {
        FlacEncoder::readOrWait(buffer, maxPairs);
        return 0;
    }
};

void setStereoInput(Testing::ModuleHarness& harness, unsigned int frames)
{
    AudioBuffer left(frames), right(frames);
    left.generateSine(0.5f, 997.0f, 48000.0f);
    right.generateSine(0.3f, 440.0f, 48000.0f);
    harness.setInput(0, std::vector<tSample>(left.getRawData(), left.getRawData() + frames));
    harness.setInput(1, std::vector<tSample>(right.getRawData(), right.getRawData() + frames));
}

// Audio-thread cost of conversion to 24 bits and queueing, per stereo frame. Every iteration queues 20
// periods, which fit the ring buffer, so no pair is dropped and every one is copied.
void BM_FlacEncoderAudioThread(benchmark::State& state)
{
    constexpr unsigned int c_periods = 20;
    static_assert(c_periods * c_period <= FlacEncoder::c_defaultCapacity, "the periods must fit");
    auto encoder = std::make_shared<DiscardingEncoder>();
    Testing::ModuleHarness harness(encoder);
    encoder->setParameters(Parameters{}, 48000);
    setStereoInput(harness, c_period);
    encoder->startEncoding();
    for (auto _ : state) {
        for (unsigned int i = 0; i < c_periods; ++i)
            encoder->process();
        // Restarting empties the ring buffer for the next iteration.
        state.PauseTiming();
        encoder->stopEncoding();
        encoder->startEncoding();
        state.ResumeTiming();
    }
    encoder->stopEncoding();
    state.counters["time/frame"] = benchmark::Counter(
        c_periods * c_period, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["dropped"] = encoder->getDroppedPairs();
}

// Encoder thread throughput for 10 s of 48 kHz stereo at compression level 2, in x real time.
void BM_FlacEncoderThroughput(benchmark::State& state)
{
    constexpr unsigned int c_seconds = 10;
    constexpr unsigned int c_periods = c_seconds * 48000 / c_period;
    auto encoder = std::make_shared<FlacEncoder>("bench", 1u << 19);
    Testing::ModuleHarness harness(encoder);
    encoder->setParameters(Parameters{}, 48000);
    setStereoInput(harness, c_period);
    for (auto _ : state) {
        encoder->startEncoding();
        for (unsigned int i = 0; i < c_periods; ++i)
            encoder->process();
        // Stopping encodes everything queued, then joins the encoder thread.
        encoder->stopEncoding();
        state.PauseTiming();
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        state.ResumeTiming();
    }
    state.counters["x_realtime"] =
        benchmark::Counter(c_seconds, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["dropped"] = encoder->getDroppedPairs();
}

} // namespace

BENCHMARK(BM_FlacEncoderAudioThread);
BENCHMARK(BM_FlacEncoderThroughput)->UseRealTime()->Unit(benchmark::kMillisecond);
