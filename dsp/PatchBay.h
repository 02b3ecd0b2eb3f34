#pragma once

#include "base/ChannelConfiguration.h"
#include "dsp/Export.h"
#include "dsp/Module.h"

#include <atomic>

namespace Zelmar {

// Stereo routing: straight, swapped, left or right on both, or a mono downmix on both outputs.
// Ports 0 = left, 1 = right. A mode change takes effect at the next period, without crossfade.
class ORVANDELDSP_EXPORT PatchBay : public Module
{
public:
    explicit PatchBay(Tools::String const& id) : Module(id) {}
    ~PatchBay() override = default;

    // "routing": a legacy routing text. Text that maps to Unknown keeps the routing in force,
    // so an unreadable setting never disturbs a working one.
    void setParameters(Parameters const& parameters, unsigned int sampleRate) override;
    unsigned int getNumOutPorts() const override { return 2; }
    unsigned int getNumInPorts() const override { return 2; }
    void process() override;

    // Unchecked: values from Unknown upwards resize the outputs but leave them unwritten. Any thread.
    void setRoutingMode(HW::ChannelConfiguration mode);
    HW::ChannelConfiguration getRoutingMode() const { return m_routingMode.load(std::memory_order_relaxed); }

private:
    // One byte, read once per period by the audio thread.
    std::atomic<HW::ChannelConfiguration> m_routingMode{HW::ChannelConfiguration::Stereo};
};

} // namespace Zelmar
