#pragma once

#include "dsp/Export.h"
#include "dsp/Module.h"

namespace Zelmar {

// Sums two signals. An input without frames counts as absent, not as silence.
class ORVANDELDSP_EXPORT Mixer : public Module
{
public:
    explicit Mixer(Tools::String const& id) : Module(id) {}
    ~Mixer() override = default;

    unsigned int getNumOutPorts() const override { return 1; }
    unsigned int getNumInPorts() const override { return 2; }
    void process() override;
};

} // namespace Zelmar
