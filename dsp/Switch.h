#pragma once

#include "dsp/Export.h"
#include "dsp/Module.h"

#include <atomic>
#include <cstdint>

namespace Zelmar {

// Passes one of two inputs; a change of port takes effect at the next period, without crossfade.
class ORVANDELDSP_EXPORT Switch : public Module
{
public:
    explicit Switch(Tools::String const& id) : Module(id) {}
    ~Switch() override = default;

    // "selected-port": out-of-range values, negative ones included, select the last port.
    void setParameters(Parameters const& parameters, unsigned int sampleRate) override;
    unsigned int getNumOutPorts() const override { return 1; }
    unsigned int getNumInPorts() const override { return 2; }
    void process() override;

    int getSelectedPort() const { return m_selectedPort.load(std::memory_order_relaxed); }
    // Unchecked: the clamp lives in setParameters. Any thread; read once per period.
    void setSelectedPort(int port) { m_selectedPort.store(port, std::memory_order_relaxed); }

private:
    std::atomic<int32_t> m_selectedPort{0};
};

} // namespace Zelmar
