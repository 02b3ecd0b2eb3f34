#pragma once

#include "dsp/Chain.h"
#include "dsp/Module.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace Zelmar {
namespace Testing {

// Drives one module without a chain: its inputs read test-owned buffers, its outputs are read back.
class ModuleHarness
{
public:
    // With inPlace, every output shares the buffer of the input with the same number.
    explicit ModuleHarness(std::shared_ptr<Module> module, bool inPlace = false)
        : m_module(std::move(module)), m_source(std::make_shared<Source>(m_module->getNumInPorts()))
    {
        Chain chain(48000);
        m_source->preSetup(chain, 1280);
        m_source->postSetup(1280);
        m_module->preSetup(chain, 1280);
        for (unsigned int port = 0; port < m_module->getNumInPorts(); ++port) {
            m_module->setInPortBuffer(port, m_source, port);
            if (inPlace)
                m_module->activeInPlaceProcessingForPort(port);
        }
        m_module->postSetup(1280);
    }

    void setInput(unsigned int port, std::vector<tSample> const& samples)
    {
        AudioBuffer& buffer = *m_source->getOutPort(port);
        buffer.setSize(static_cast<unsigned int>(samples.size()));
        std::copy(samples.begin(), samples.end(), buffer.getRawData());
    }

    // Feeds `samples` to input 0, runs one period and returns output 0.
    std::vector<tSample> run(std::vector<tSample> const& samples)
    {
        setInput(0, samples);
        m_module->process();
        return output(0);
    }

    std::vector<tSample> output(unsigned int port) const
    {
        AudioBuffer const& buffer = *m_module->getOutPort(port);
        return std::vector<tSample>(buffer.getRawData(), buffer.getRawData() + buffer.getNumSampleFrames());
    }

    Module& module() { return *m_module; }

private:
    class Source : public Module
    {
    public:
        explicit Source(unsigned int numPorts) : Module("source"), m_numPorts(numPorts) {}
        unsigned int getNumOutPorts() const override { return m_numPorts; }
        unsigned int getNumInPorts() const override { return 0; }
        void process() override {}

    private:
        unsigned int m_numPorts;
    };

    std::shared_ptr<Module> m_module;
    std::shared_ptr<Source> m_source;
};

inline std::vector<tSample> constant(unsigned int frames, tSample value)
{
    return std::vector<tSample>(frames, value);
}

inline tSample raw(int32_t value)
{
    return tSample(value);
}

} // namespace Testing
} // namespace Zelmar
