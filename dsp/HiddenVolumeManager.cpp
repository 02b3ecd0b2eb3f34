#include "dsp/HiddenVolumeManager.h"

#include "base/HardwaredClient.h"
#include "base/Tracer.h"

namespace Zelmar {

HiddenVolumeManager::HiddenVolumeManager()
    : m_connection(HardwaredClient::get().onConnectionStateChanged(
          [this](bool connected) { onConnectionStateChanged(connected); }))
{
}

void HiddenVolumeManager::setHiddenVolumeDelta(double deltaDb)
{
    if (HardwaredClient::get().isConnected())
        setHiddenVolumeDeltaViaDbus(deltaDb);
    else
        m_pendingDelta = deltaDb;
}

void HiddenVolumeManager::setHiddenVolumeDeltaViaDbus(double deltaDb)
{
    Tools::trace(Tools::Tracer::Info, "HardwaredClientChain: setting hidden volume delta to", deltaDb);
    HardwaredClient::get().setHiddenVolumeDelta(deltaDb, [] {},
                                                HardwaredClient::getErrorLogger("setting hidden volume delta"));
}

void HiddenVolumeManager::onConnectionStateChanged(bool connected)
{
    if (!connected || m_pendingDelta == c_nothingPending)
        return;
    double const pending = m_pendingDelta;
    m_pendingDelta = c_nothingPending;
    setHiddenVolumeDeltaViaDbus(pending);
}

} // namespace Zelmar
