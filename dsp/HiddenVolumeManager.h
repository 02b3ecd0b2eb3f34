#pragma once

#include "base/Signal.h"
#include "dsp/Export.h"

namespace Zelmar {

// Passes the equalisers' hidden volume delta (dB) to the hardware daemon, so the device can raise its
// volume by what an equaliser took away. While the daemon is away only the newest delta is kept.
// Main loop only.
class ORVANDELDSP_EXPORT HiddenVolumeManager
{
public:
    HiddenVolumeManager();
    virtual ~HiddenVolumeManager() = default;

    void setHiddenVolumeDelta(double deltaDb);

private:
    void setHiddenVolumeDeltaViaDbus(double deltaDb);
    void onConnectionStateChanged(bool connected);

    // The smallest positive normal double marks "nothing pending"; callers only send 0 or positive dB.
    static constexpr double c_nothingPending = 2.2250738585072014e-308;

    double m_pendingDelta = c_nothingPending;
    Tools::Connection m_connection;
};

} // namespace Zelmar
