#include "base/HardwaredClient.h"

#include "base/Tracer.h"

#include <cmath>

namespace Zelmar {

namespace {

constexpr char const* c_busName = "com.orvandel.Hardwared";
constexpr char const* c_objectPath = "/com/orvandel/Hardwared";
constexpr char const* c_interfaceName = "com.orvandel.Hardwared";
constexpr char const* c_volumeProperty = "volume";

// Main loop thread only, like everything else here; reset() is the only other writer.
HardwaredClient* s_instance = nullptr;

bool isCancelled(GError const* error)
{
    return g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
}

void reportError(HardwaredClient::tErrorHandler const& onError, Tools::String const& message)
{
    if (onError)
        onError(message);
}

struct PendingCall
{
    std::function<void()> onSuccess;
    HardwaredClient::tErrorHandler onError;
};

} // namespace

class HardwaredClient::Private : public std::enable_shared_from_this<Private>
{
public:
    Private() = default;
    ~Private();

    void start();
    bool isConnected() const { return m_proxy != nullptr; }
    GDBusProxy* getProxy() const { return m_proxy; }
    double getVolume() const { return m_volume; }

    Tools::Signal<void(bool)> m_connectionStateChanged;
    Tools::Signal<void(double)> m_volumeChanged;

private:
    using tWeak = std::weak_ptr<Private>;

    static void onBusConnected(GObject*, GAsyncResult* result, gpointer weak);
    static void onNameAppeared(GDBusConnection* connection, gchar const*, gchar const*, gpointer self);
    static void onNameVanished(GDBusConnection*, gchar const*, gpointer self);
    static void onProxyReady(GObject*, GAsyncResult* result, gpointer weak);
    static void onPropertiesChanged(GDBusProxy*, GVariant*, gchar const* const*, gpointer self);

    gpointer newWeakHandle() { return new tWeak(weak_from_this()); }
    void createProxy(GDBusConnection* connection);
    void dropProxy();
    void takeVolume();

    GCancellable* m_busCancellable = g_cancellable_new();
    GDBusConnection* m_connection = nullptr;
    guint m_watchId = 0;
    GCancellable* m_proxyCancellable = nullptr;
    GDBusProxy* m_proxy = nullptr;
    double m_volume = 0.0;
};

void HardwaredClient::Private::start()
{
    // A connection of our own rather than GLib's shared system bus connection: that one ends the process
    // when the bus goes away, and closing ours is how reset() lets go of a bus. Same address either way.
    GError* error = nullptr;
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (!address) {
        Tools::trace(Tools::Tracer::Notice, "HardwaredClient: no system bus:", error->message);
        g_error_free(error);
        return;
    }
    g_dbus_connection_new_for_address(address,
                                      GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                                      nullptr, m_busCancellable, &Private::onBusConnected, newWeakHandle());
    g_free(address);
}

HardwaredClient::Private::~Private()
{
    g_cancellable_cancel(m_busCancellable);
    g_object_unref(m_busCancellable);
    if (m_watchId)
        g_bus_unwatch_name(m_watchId);
    dropProxy();
    if (m_connection) {
        g_dbus_connection_close(m_connection, nullptr, nullptr, nullptr);
        g_object_unref(m_connection);
    }
}

void HardwaredClient::Private::onBusConnected(GObject*, GAsyncResult* result, gpointer weak)
{
    std::unique_ptr<tWeak> handle(static_cast<tWeak*>(weak));
    GError* error = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_for_address_finish(result, &error);
    auto self = handle->lock();
    if (!connection) {
        // Offline or in tests without a bus: stay disconnected, calls fail at once.
        if (self && !isCancelled(error))
            Tools::trace(Tools::Tracer::Notice, "HardwaredClient: no system bus:", error->message);
        g_error_free(error);
        return;
    }
    if (!self) {
        g_dbus_connection_close(connection, nullptr, nullptr, nullptr);
        g_object_unref(connection);
        return;
    }
    self->m_connection = connection;
    self->m_watchId = g_bus_watch_name_on_connection(connection, c_busName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                                     &Private::onNameAppeared, &Private::onNameVanished,
                                                     self.get(), nullptr);
}

void HardwaredClient::Private::onNameAppeared(GDBusConnection* connection, gchar const*, gchar const*,
                                              gpointer self)
{
    static_cast<Private*>(self)->createProxy(connection);
}

void HardwaredClient::Private::onNameVanished(GDBusConnection*, gchar const*, gpointer self)
{
    auto* client = static_cast<Private*>(self);
    bool const wasConnected = client->isConnected();
    client->dropProxy();
    if (!wasConnected)
        return;
    Tools::trace(Tools::Tracer::Notice, "HardwaredClient: hardware daemon gone");
    client->m_connectionStateChanged(false);
}

void HardwaredClient::Private::createProxy(GDBusConnection* connection)
{
    dropProxy();
    m_proxyCancellable = g_cancellable_new();
    g_dbus_proxy_new(
        connection,
        GDBusProxyFlags(G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START | G_DBUS_PROXY_FLAGS_GET_INVALIDATED_PROPERTIES),
        nullptr, c_busName, c_objectPath, c_interfaceName, m_proxyCancellable, &Private::onProxyReady,
        newWeakHandle());
}

void HardwaredClient::Private::onProxyReady(GObject*, GAsyncResult* result, gpointer weak)
{
    std::unique_ptr<tWeak> handle(static_cast<tWeak*>(weak));
    GError* error = nullptr;
    GDBusProxy* proxy = g_dbus_proxy_new_finish(result, &error);
    auto self = handle->lock();
    if (!proxy) {
        if (self && !isCancelled(error))
            Tools::trace(Tools::Tracer::Error,
                         "HardwaredClient: cannot reach the hardware daemon:", error->message);
        g_error_free(error);
        return;
    }
    // The daemon may have vanished (cancelling this proxy) while its properties were being read.
    if (!self || !self->m_proxyCancellable || g_cancellable_is_cancelled(self->m_proxyCancellable)) {
        g_object_unref(proxy);
        return;
    }
    self->m_proxy = proxy;
    g_signal_connect(proxy, "g-properties-changed", G_CALLBACK(&Private::onPropertiesChanged), self.get());
    Tools::trace(Tools::Tracer::Notice, "HardwaredClient: connected to the hardware daemon");
    self->m_connectionStateChanged(true);
    self->takeVolume();
}

void HardwaredClient::Private::onPropertiesChanged(GDBusProxy*, GVariant*, gchar const* const*, gpointer self)
{
    static_cast<Private*>(self)->takeVolume();
}

void HardwaredClient::Private::takeVolume()
{
    GVariant* value = m_proxy ? g_dbus_proxy_get_cached_property(m_proxy, c_volumeProperty) : nullptr;
    if (!value)
        return;
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_DOUBLE)) {
        Tools::trace(Tools::Tracer::Error, "HardwaredClient: property", c_volumeProperty, "has type",
                     g_variant_get_type_string(value), "instead of d, ignored");
        g_variant_unref(value);
        return;
    }
    double const volume = g_variant_get_double(value);
    g_variant_unref(value);
    if (volume == m_volume)
        return;
    m_volume = volume;
    m_volumeChanged(volume);
}

void HardwaredClient::Private::dropProxy()
{
    if (m_proxyCancellable) {
        g_cancellable_cancel(m_proxyCancellable);
        g_object_unref(m_proxyCancellable);
        m_proxyCancellable = nullptr;
    }
    if (m_proxy) {
        g_signal_handlers_disconnect_by_data(m_proxy, this);
        g_object_unref(m_proxy);
        m_proxy = nullptr;
    }
}

HardwaredClient::HardwaredClient() : m_private(std::make_shared<Private>())
{
    m_private->start();
}

HardwaredClient::~HardwaredClient() = default;

HardwaredClient& HardwaredClient::get()
{
    // Never destroyed at exit: the host's main loop is gone by then and closing the bus helps nobody.
    if (!s_instance)
        s_instance = new HardwaredClient();
    return *s_instance;
}

void HardwaredClient::reset()
{
    delete s_instance;
    s_instance = nullptr;
}

bool HardwaredClient::isConnected() const
{
    return m_private->isConnected();
}

Tools::Connection HardwaredClient::onConnectionStateChanged(std::function<void(bool connected)> handler)
{
    return m_private->m_connectionStateChanged.connect(std::move(handler));
}

void HardwaredClient::setHiddenVolumeDelta(double deltaDb, std::function<void()> onSuccess,
                                           tErrorHandler onError)
{
    if (!std::isfinite(deltaDb)) {
        reportError(onError,
                    Tools::String::format("hidden volume delta %0 dB is not a finite number", deltaDb));
        return;
    }
    if (!isConnected()) {
        reportError(onError, Tools::String::format("not connected to the hardware daemon %0", c_busName));
        return;
    }
    g_dbus_proxy_call(
        m_private->getProxy(), "SetHiddenVolumeDelta", g_variant_new("(d)", deltaDb),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr,
        [](GObject* proxy, GAsyncResult* result, gpointer data) {
            std::unique_ptr<PendingCall> call(static_cast<PendingCall*>(data));
            GError* error = nullptr;
            GVariant* reply = g_dbus_proxy_call_finish(G_DBUS_PROXY(proxy), result, &error);
            if (reply) {
                g_variant_unref(reply);
                if (call->onSuccess)
                    call->onSuccess();
                return;
            }
            Tools::String const message(error->message);
            g_error_free(error);
            reportError(call->onError, message);
        },
        new PendingCall{std::move(onSuccess), std::move(onError)});
}

double HardwaredClient::getVolume() const
{
    return m_private->getVolume();
}

HardwaredClient::PropertyState HardwaredClient::tryGetProperty(char const* name, double& value) const
{
    GDBusProxy* proxy = m_private->getProxy();
    if (!proxy)
        return PropertyState::NoProxy;
    GVariant* cached = g_dbus_proxy_get_cached_property(proxy, name);
    if (!cached)
        return PropertyState::Missing;
    bool const isDouble = g_variant_is_of_type(cached, G_VARIANT_TYPE_DOUBLE);
    if (isDouble)
        value = g_variant_get_double(cached);
    g_variant_unref(cached);
    return isDouble ? PropertyState::Found : PropertyState::Missing;
}

Tools::Connection HardwaredClient::onVolumeChanged(std::function<void(double volume)> handler)
{
    return m_private->m_volumeChanged.connect(std::move(handler));
}

HardwaredClient::tErrorHandler HardwaredClient::getErrorLogger(Tools::String const& text)
{
    return [text](Tools::String const& message) {
        Tools::trace(Tools::Tracer::Error, text, "failed:", message);
    };
}

} // namespace Zelmar
