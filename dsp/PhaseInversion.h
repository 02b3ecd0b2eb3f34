#pragma once

#include "dsp/Export.h"
#include "dsp/Module.h"

namespace Zelmar {

// Negates a signal as 32-bit two's complement: -16.0 wraps onto itself rather than saturating.
class ORVANDELDSP_EXPORT PhaseInversion : public Module
{
public:
    explicit PhaseInversion(Tools::String const& id) : Module(id) {}
    ~PhaseInversion() override = default;

    unsigned int getNumInPorts() const override { return 1; }
    unsigned int getNumOutPorts() const override { return 1; }
    void process() override;
};

} // namespace Zelmar
