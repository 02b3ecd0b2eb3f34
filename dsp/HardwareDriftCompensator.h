#pragma once

#include "base/Expiration.h"
#include "base/String.h"
#include "dsp/DriftCompensator.h"
#include "dsp/Export.h"

namespace Zelmar {

// Trims the board's voltage-controlled clock through its 12-bit DAC in sysfs: every 100 ms the
// latest frame delta becomes a DAC value, two frames of range on each side of mid scale.
class ORVANDELDSP_EXPORT HardwareDriftCompensator : public DriftCompensator
{
public:
    static char const* const s_legacyDevicePath;
    static char const* const s_devicePath;

    HardwareDriftCompensator();
    ~HardwareDriftCompensator() override;

    void start() override;
    void stop() override;

    // One tick of the 100 ms timer; false when there is nothing to steer and the timer ends.
    bool writeClock();

    // (delta + 2) * 1024 limited to 0...4095; a product that wraps negative also gives 0.
    static int32_t dacValue(int32_t delta);

    // Prefixed to both device paths at the next construction, so tests never touch the real /sys.
    static void setDeviceRoot(Tools::String const& root);

private:
    Tools::Expiration m_expiration;
    int m_fd = -1;

    static Tools::String s_deviceRoot;
};

} // namespace Zelmar
