#pragma once

#include "dsp/BiQuad.h"

namespace Zelmar {

// The BiQuad on a stereo pair (ports 0 = left, 1 = right): one coefficient set, separate state.
class StereoBiQuad : public BiQuad
{
public:
    explicit StereoBiQuad(Tools::String const& id) : BiQuad(id) {}
    ~StereoBiQuad() override = default;

    unsigned int getNumOutPorts() const override { return 2; }
    unsigned int getNumInPorts() const override { return 2; }
    void process() override;

private:
    tSample m_z1Left;
    tSample m_z1Right;
    tSample m_z2Left;
    tSample m_z2Right;
};

} // namespace Zelmar
