#include "dsp/ChainService.h"

#include "base/DbusService.h"
#include "base/SystemSoundCheck.h"
#include "base/Tracer.h"
#include "dbus/ChainDbus.h"
#include "dsp/Chain.h"
#include "dsp/IllegalArgumentException.h"
#include "dsp/ParsingException.h"

#include <exception>
#include <map>

namespace Zelmar {

namespace {

// Runs a handler step and answers the invocation with InvalidArgs carrying the refusal's message.
template <class F> bool answeredWithoutError(GDBusMethodInvocation* invocation, F&& step)
{
    std::string message;
    try {
        step();
        return true;
    } catch (IllegalArgumentException const& e) {
        message = e.getMessage().str();
    } catch (ParsingException const& e) {
        message = e.getMessage().str();
    } catch (std::exception const& e) {
        message = e.what();
    } catch (...) {
        message = "unknown error";
    }
    g_dbus_method_invocation_return_error_literal(invocation, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                                                  message.c_str());
    return false;
}

} // namespace

ChainService::ChainService(Chain& chain) : ChainService(chain, 1) {}

ChainService::ChainService(Chain& chain, int busType)
    : m_service(std::make_unique<Tools::DbusService>(busType, c_busName, c_objectPath,
                                                     orvandel_dsp_chain_dbus_skeleton_get_type())),
      m_chain(chain)
{
    connectSignals();
}

ChainService::ChainService(Chain& chain, GDBusConnection* connection)
    : m_service(std::make_unique<Tools::DbusService>(connection, c_busName, c_objectPath,
                                                     orvandel_dsp_chain_dbus_skeleton_get_type())),
      m_chain(chain)
{
    connectSignals();
}

ChainService::~ChainService()
{
    for (gulong const id : m_connections)
        g_signal_handler_disconnect(m_service->getSkeleton(), id);
}

bool ChainService::isServiceReady() const
{
    return m_service->isNameOwned();
}

void ChainService::connectSignals()
{
    gpointer const skeleton = m_service->getSkeleton();
    m_connections = {
        g_signal_connect(skeleton, "handle-set-parameter", G_CALLBACK(&ChainService::onSetParameter), this),
        g_signal_connect(skeleton, "handle-set-parameters", G_CALLBACK(&ChainService::onSetParameters), this),
        g_signal_connect(skeleton, "handle-play-system-sound", G_CALLBACK(&ChainService::onPlaySystemSound),
                         this),
        g_signal_connect(skeleton, "handle-loop-system-sound", G_CALLBACK(&ChainService::onLoopSystemSound),
                         this),
        g_signal_connect(skeleton, "handle-stop-looping-system-sound",
                         G_CALLBACK(&ChainService::onStopLoopingSystemSound), this)};
}

void ChainService::handleSetParameter(char const* module, char const* key, char const* value)
{
    std::shared_ptr<Module> const found = m_chain.tryFindModule(module);
    if (!found)
        return;
    Parameters changed = found->getConfiguredParameters();
    changed.set(key, value);
    found->applyParameters(changed, m_chain.getSampleRate());
}

void ChainService::handleSetParameters(GVariant* parameters)
{
    std::map<Tools::String, Parameters> sets;
    Chain::forModule<Module>(m_chain.getModules(), [&](std::shared_ptr<Module> const& module) {
        sets.emplace(module->getID(), module->getConfiguredParameters());
    });

    GVariantIter iter;
    gchar* module = nullptr;
    gchar* key = nullptr;
    gchar* value = nullptr;
    g_variant_iter_init(&iter, parameters);
    while (g_variant_iter_loop(&iter, "(sss)", &module, &key, &value)) {
        auto const it = sets.find(module);
        if (it != sets.end())
            it->second.set(key, value);
    }

    // Every module gets its set even when another refuses; the first refusal is reported.
    std::exception_ptr refusal;
    for (auto const& [id, set] : sets) {
        try {
            m_chain.findModule(id)->applyParameters(set, m_chain.getSampleRate());
        } catch (...) {
            if (!refusal)
                refusal = std::current_exception();
        }
    }
    m_chainReady.store(true, std::memory_order_seq_cst);
    m_player.startAllPendingSounds(&m_chain);
    if (refusal)
        std::rethrow_exception(refusal);
}

void ChainService::playSystemSound(SystemSound sound)
{
    m_player.play(sound, &m_chain);
}

unsigned int ChainService::loopSystemSound(SystemSound sound, unsigned int interval)
{
    if (interval < c_shortestLoopInterval)
        throw IllegalArgumentException(
            "unable to loop system sound: an interval of %0 ms is shorter than %1 ms", interval,
            c_shortestLoopInterval);
    unsigned int const id = m_player.registerRepeatingSound(sound, interval);
    if (isChainReady())
        m_player.startRepeatingSound(id, &m_chain);
    return id;
}

void ChainService::stopLoopingSystemSound(unsigned int id)
{
    m_player.stopRepeatingSound(id);
}

gboolean ChainService::onSetParameter(gpointer skeleton, GDBusMethodInvocation* invocation,
                                      char const* module, char const* key, char const* value,
                                      ChainService* self)
{
    if (answeredWithoutError(invocation, [&] { self->handleSetParameter(module, key, value); }))
        orvandel_dsp_chain_dbus_complete_set_parameter(ORVANDEL_DSP_CHAIN_DBUS(skeleton), invocation);
    return TRUE;
}

gboolean ChainService::onSetParameters(gpointer skeleton, GDBusMethodInvocation* invocation,
                                       GVariant* parameters, ChainService* self)
{
    if (answeredWithoutError(invocation, [&] { self->handleSetParameters(parameters); }))
        orvandel_dsp_chain_dbus_complete_set_parameters(ORVANDEL_DSP_CHAIN_DBUS(skeleton), invocation);
    return TRUE;
}

gboolean ChainService::onPlaySystemSound(gpointer skeleton, GDBusMethodInvocation* invocation, gint sound,
                                         ChainService* self)
{
    if (!HW::isValidSystemSound(sound)) {
        Tools::trace(Tools::Tracer::Error, "ChainService:", sound,
                     "is not a valid system sound to be played");
        g_dbus_method_invocation_return_error_literal(invocation, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                                                      "unable to play system sound");
        return TRUE;
    }
    if (answeredWithoutError(invocation, [&] { self->playSystemSound(static_cast<SystemSound>(sound)); }))
        orvandel_dsp_chain_dbus_complete_play_system_sound(ORVANDEL_DSP_CHAIN_DBUS(skeleton), invocation);
    return TRUE;
}

gboolean ChainService::onLoopSystemSound(gpointer skeleton, GDBusMethodInvocation* invocation, gint sound,
                                         guint interval, ChainService* self)
{
    if (!HW::isValidSystemSound(sound)) {
        Tools::trace(Tools::Tracer::Error, "ChainService:", sound,
                     "is not a valid system sound to be looped");
        g_dbus_method_invocation_return_error_literal(invocation, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                                                      "unable to loop system sound");
        return TRUE;
    }
    unsigned int id = 0;
    if (answeredWithoutError(invocation,
                             [&] { id = self->loopSystemSound(static_cast<SystemSound>(sound), interval); }))
        orvandel_dsp_chain_dbus_complete_loop_system_sound(ORVANDEL_DSP_CHAIN_DBUS(skeleton), invocation, id);
    return TRUE;
}

gboolean ChainService::onStopLoopingSystemSound(gpointer skeleton, GDBusMethodInvocation* invocation,
                                                guint id, ChainService* self)
{
    self->stopLoopingSystemSound(id);
    orvandel_dsp_chain_dbus_complete_stop_looping_system_sound(ORVANDEL_DSP_CHAIN_DBUS(skeleton), invocation);
    return TRUE;
}

} // namespace Zelmar
