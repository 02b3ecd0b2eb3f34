#pragma once

#include "dsp/Export.h"
#include "dsp/SystemSound.h"
#include "dsp/SystemSoundsPlayer.h"

#include <atomic>
#include <gio/gio.h>
#include <memory>
#include <vector>

namespace Zelmar {

class Chain;
namespace Tools {
class DbusService;
}

// Serves a running chain on D-Bus as "com.orvandeldsp.Chain" (interface in dbus/com.orvandeldsp.Chain.xml):
// module parameters and system sounds. Main loop only. A caller's bad parameters are answered with
// InvalidArgs and never reach a module; nothing a caller sends can end the process.
class ORVANDELDSP_EXPORT ChainService
{
public:
    // Where the chain is found: clients need the same names.
    static constexpr char const* c_busName = "com.orvandeldsp.Chain";
    static constexpr char const* c_objectPath = "/com/orvandeldsp/Chain";
    static constexpr char const* c_interfaceName = "com.orvandeldsp.Chain";
    // A sound repeated faster than a mute fade lasts is noise, and at 0 it would keep the main loop busy.
    static constexpr unsigned int c_shortestLoopInterval = 100;

    // Serves on the system bus.
    explicit ChainService(Chain& chain);
    // Serves on the given bus (1 system, 2 session) or connection, for hosts and tests.
    ChainService(Chain& chain, int busType);
    ChainService(Chain& chain, GDBusConnection* connection);
    ~ChainService();

    ChainService(ChainService const&) = delete;
    ChainService& operator=(ChainService const&) = delete;

    bool isServiceReady() const;
    bool isChainReady() const { return m_chainReady.load(); }

    // Both throw the module's refusal (IllegalArgumentException, ParsingException, conversion errors);
    // a refusing module keeps its previous parameters.
    void handleSetParameter(char const* module, char const* key, char const* value);
    void handleSetParameters(GVariant* parameters);
    void playSystemSound(SystemSound sound);
    // Throws IllegalArgumentException for an interval below c_shortestLoopInterval.
    unsigned int loopSystemSound(SystemSound sound, unsigned int interval);
    void stopLoopingSystemSound(unsigned int id);

private:
    void connectSignals();

    static gboolean onSetParameter(gpointer skeleton, GDBusMethodInvocation* invocation, char const* module,
                                   char const* key, char const* value, ChainService* self);
    static gboolean onSetParameters(gpointer skeleton, GDBusMethodInvocation* invocation,
                                    GVariant* parameters, ChainService* self);
    static gboolean onPlaySystemSound(gpointer skeleton, GDBusMethodInvocation* invocation, gint sound,
                                      ChainService* self);
    static gboolean onLoopSystemSound(gpointer skeleton, GDBusMethodInvocation* invocation, gint sound,
                                      guint interval, ChainService* self);
    static gboolean onStopLoopingSystemSound(gpointer skeleton, GDBusMethodInvocation* invocation, guint id,
                                             ChainService* self);

    std::unique_ptr<Tools::DbusService> m_service;
    Chain& m_chain;
    std::atomic<bool> m_chainReady{false};
    SystemSoundsPlayer m_player;
    std::vector<gulong> m_connections;
};

} // namespace Zelmar
