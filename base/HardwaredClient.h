#pragma once

#include "base/Signal.h"
#include "base/String.h"

#include <functional>
#include <gio/gio.h>

namespace Zelmar {

// Client of the hardware daemon on the system bus (interface in dbus/com.orvandel.Hardwared.xml).
// It follows the daemon's bus name, so it connects and reconnects as the daemon comes and goes.
// All calls and notifications happen on the main context of the thread that first called get().
class HardwaredClient
{
public:
    using tErrorHandler = std::function<void(Tools::String const& message)>;

    static HardwaredClient& get();

    bool isConnected() const;
    Tools::Connection onConnectionStateChanged(std::function<void(bool connected)> handler);

    // Asynchronous: exactly one of the handlers runs on the main loop when the daemon answers.
    void setHiddenVolumeDelta(double deltaDb, std::function<void()> onSuccess, tErrorHandler onError);

    // The daemon's "volume" property as last seen, 0 while unknown.
    double getVolume() const;
    Tools::Connection onVolumeChanged(std::function<void(double volume)> handler);

    // An error handler that logs "<text> failed:" and the D-Bus error at tracer level 4.
    static tErrorHandler getErrorLogger(Tools::String const& text);

private:
    HardwaredClient();
    ~HardwaredClient();
    class Private;
    Private* m_private;
};

} // namespace Zelmar
