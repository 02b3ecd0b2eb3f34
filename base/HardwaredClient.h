#pragma once

#include "base/Signal.h"
#include "base/String.h"

#include <functional>
#include <gio/gio.h>
#include <memory>

namespace Zelmar {

// Client of the hardware daemon on the system bus (interface in dbus/com.orvandel.Hardwared.xml).
// It follows the daemon's bus name, so it connects and reconnects as the daemon comes and goes.
// All calls and notifications happen on the main context of the thread that first called get().
// With no system bus at all (offline use, tests) it simply stays disconnected.
class HardwaredClient
{
public:
    using tErrorHandler = std::function<void(Tools::String const& message)>;

    static HardwaredClient& get();

    // Drops the instance with its bus connection and subscribers; the next get() starts over and reads
    // DBUS_SYSTEM_BUS_ADDRESS again. Lets tests move the client onto a bus of their own.
    static void reset();

    HardwaredClient(HardwaredClient const&) = delete;
    HardwaredClient& operator=(HardwaredClient const&) = delete;

    bool isConnected() const;
    Tools::Connection onConnectionStateChanged(std::function<void(bool connected)> handler);

    // Asynchronous: exactly one of the handlers runs on the main loop when the daemon answers.
    // When not connected, or for a delta that is not a finite number, onError runs at once.
    void setHiddenVolumeDelta(double deltaDb, std::function<void()> onSuccess, tErrorHandler onError);

    // The daemon's "volume" property as last seen, 0 while unknown.
    double getVolume() const;

    // A property as the daemon last reported it, telling apart why there is none: no daemon to ask, or
    // a daemon that does not (yet) report it. A property that is not a double counts as missing.
    enum class PropertyState
    {
        Found,
        NoProxy,
        Missing
    };
    PropertyState tryGetProperty(char const* name, double& value) const;
    Tools::Connection onVolumeChanged(std::function<void(double volume)> handler);

    // An error handler that logs "<text> failed:" and the D-Bus error at tracer level 4.
    static tErrorHandler getErrorLogger(Tools::String const& text);

private:
    HardwaredClient();
    ~HardwaredClient();
    class Private;
    // Shared so that a D-Bus reply arriving after reset() can tell that its client is gone.
    std::shared_ptr<Private> m_private;
};

} // namespace Zelmar
