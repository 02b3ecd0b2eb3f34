#pragma once

#include "dsp/Chain.h"
#include "dsp/Module.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

namespace Zelmar {
namespace Testing {

// Feeds a module under test from buffers the test fills, wired and allocated as a compiled chain would.
class ModuleHarness
{
public:
    using tChannels = std::vector<std::vector<tSample>>;

    explicit ModuleHarness(std::shared_ptr<Module> module, bool inPlace = false)
        : m_chain(48000), m_source(std::make_shared<Source>(module->getNumInPorts())),
          m_module(std::move(module))
    {
        m_source->preSetup(m_chain, 1280);
        m_source->postSetup(1280);
        m_module->preSetup(m_chain, 1280);
        for (unsigned int port = 0; port < m_module->getNumInPorts(); ++port) {
            m_module->setInPortBuffer(port, m_source, port);
            if (inPlace)
                m_module->activeInPlaceProcessingForPort(port);
        }
        m_module->postSetup(1280);
    }

    // One period: input p goes to port p; returns the output of every port.
    tChannels process(tChannels const& inputs)
    {
        for (unsigned int port = 0; port < inputs.size(); ++port)
            setInput(port, inputs[port]);
        m_module->process();
        tChannels outputs;
        for (unsigned int port = 0; port < m_module->getNumOutPorts(); ++port)
            outputs.push_back(m_module->getOutPort(port)->getUnderlyingStorage());
        return outputs;
    }

    // Feeds `samples` to input 0, runs one period and returns output 0.
    std::vector<tSample> run(std::vector<tSample> const& samples) { return process({samples})[0]; }

    // Runs the inputs in periods of at most `period` frames and joins the outputs.
    tChannels processInPeriods(tChannels const& inputs, unsigned int period)
    {
        tChannels joined(m_module->getNumOutPorts());
        for (size_t start = 0; start < inputs[0].size(); start += period) {
            tChannels chunk;
            for (auto const& input : inputs)
                chunk.emplace_back(input.begin() + long(start),
                                   input.begin() + long(std::min(input.size(), start + period)));
            tChannels const out = process(chunk);
            for (unsigned int port = 0; port < out.size(); ++port)
                joined[port].insert(joined[port].end(), out[port].begin(), out[port].end());
        }
        return joined;
    }

    // The benchmarks set the inputs once and time process() alone.
    void setInput(unsigned int port, std::vector<tSample> const& samples)
    {
        m_source->getOutPort(port)->getUnderlyingStorage().assign(samples.begin(), samples.end());
    }

    Module& module() { return *m_module; }
    Chain& getChain() { return m_chain; }
    std::shared_ptr<AudioBuffer> getSourceBuffer(unsigned int port) { return m_source->getOutPort(port); }

private:
    struct Source : Module
    {
        explicit Source(unsigned int ports) : Module("source"), ports(ports) {}
        unsigned int getNumOutPorts() const override { return ports; }
        unsigned int getNumInPorts() const override { return 0; }
        void process() override {}
        unsigned int ports;
    };

    Chain m_chain;
    std::shared_ptr<Source> m_source;
    std::shared_ptr<Module> m_module;
};

inline std::vector<tSample> constant(unsigned int frames, tSample value)
{
    return std::vector<tSample>(frames, value);
}

inline tSample raw(int32_t value)
{
    return tSample(value);
}

// Raw samples drawn evenly from [-limit, limit), full scale (1.0) by default; the same seed gives the same
// samples.
inline std::vector<tSample> noise(unsigned int frames, unsigned int seed, int64_t limit = int64_t(1) << 27)
{
    std::mt19937 random(seed);
    std::uniform_int_distribution<int64_t> value(-limit, limit - 1);
    std::vector<tSample> samples(frames);
    for (auto& s : samples)
        s = tSample(static_cast<int32_t>(value(random)));
    return samples;
}

// Samples `first` to `first + frames - 1` of a sine starting at phase 0.
inline std::vector<tSample> makeSine(double amplitude, double frequency, double sampleRate,
                                     unsigned int frames, unsigned int first = 0)
{
    std::vector<tSample> samples(frames);
    for (unsigned int i = 0; i < frames; ++i)
        samples[i] = tSample(amplitude * std::sin(2 * M_PI * frequency * (first + i) / sampleRate));
    return samples;
}

// Level in dB of the last `frames` samples relative to a sine of the given amplitude (RMS based, so
// the window should hold whole periods).
inline double levelDb(std::vector<tSample> const& samples, unsigned int frames, double amplitude)
{
    double sum = 0;
    for (size_t i = samples.size() - frames; i < samples.size(); ++i)
        sum += samples[i].toDouble() * samples[i].toDouble();
    return 20 * std::log10(std::sqrt(2 * sum / frames) / amplitude);
}

} // namespace Testing
} // namespace Zelmar
