#pragma once

#include "dsp/Export.h"
#include "dsp/Module.h"

#include <atomic>

namespace Zelmar {

// A sink that holds the peak level of its input until a reader exchanges it.
class ORVANDELDSP_EXPORT Meter : public Module
{
public:
    explicit Meter(Tools::String const& id) : Module(id) {}
    ~Meter() override = default;

    unsigned int getNumOutPorts() const override { return 0; }
    unsigned int getNumInPorts() const override { return 1; }
    void process() override;

    // Stores newLevel and returns the held peak; exchange(0.0f) reads and resets.
    float exchange(float const& newLevel) { return m_level.exchange(newLevel); }

private:
    // process() loads and stores separately, so a reset racing with a period may be lost for that period.
    std::atomic<float> m_level{0.0f};
};

} // namespace Zelmar
