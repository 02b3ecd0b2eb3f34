#pragma once

#include "dsp/Export.h"
#include "dsp/Module.h"

namespace Zelmar {

// Hard-clips every sample into [-1.0, 1.0), the range the output formats can hold.
class ORVANDELDSP_EXPORT ClipGuard : public Module
{
public:
    explicit ClipGuard(Tools::String const& id) : Module(id) {}
    ~ClipGuard() override = default;

    unsigned int getNumOutPorts() const override { return 1; }
    unsigned int getNumInPorts() const override { return 1; }
    void process() override;

private:
    tSample const m_max{int32_t(0x07FFFFFF)};
    tSample const m_min{int32_t(0xF8000000)};
};

} // namespace Zelmar
