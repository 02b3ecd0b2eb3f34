#pragma once

#include "dsp/BiQuad.h"
#include "dsp/Export.h"

namespace Zelmar {

// The BiQuad on a stereo pair (ports 0 = left, 1 = right): one coefficient set, separate state.
class ORVANDELDSP_EXPORT StereoBiQuad : public BiQuad
{
public:
    explicit StereoBiQuad(Tools::String const& id) : BiQuad(id) {}
    ~StereoBiQuad() override = default;

    unsigned int getNumOutPorts() const override { return 2; }
    unsigned int getNumInPorts() const override { return 2; }
    void process() override;
    void bindCascadeState(CascadeSection& section) override;

private:
    StereoBiQuadState m_state;
};

} // namespace Zelmar
