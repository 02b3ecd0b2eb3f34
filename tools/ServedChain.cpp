#include "tools/ServedChain.h"

#include "dsp/ChainService.h"
#include "tools/ControlBus.h"
#include "tools/ToolError.h"

#include <cstdio>
#include <string>

namespace Zelmar {
namespace Host {

ServedChain::ServedChain(Chain& chain, GBusType bus) : m_bus(bus), m_connection(ControlBus::connect(bus))
{
    try {
        // A second run or a refusing policy would otherwise only show as a timeout.
        ControlBus::tryToOwn(m_connection, ChainService::c_busName, bus, "another realtime run");
        startService(chain);
        ControlBus::waitUntilOwned([this] { return m_service->isServiceReady(); }, ChainService::c_busName,
                                   bus);
    } catch (...) {
        m_service.reset();
        g_object_unref(m_connection);
        throw;
    }
}

void ServedChain::announce() const
{
    std::printf("orvandeldsp: serving %s on %s\n", ChainService::c_busName,
                ControlBus::describe(m_bus).c_str());
    std::fflush(stdout);
}

void ServedChain::serve(Chain& chain)
{
    m_service.reset();
    startService(chain);
}

void ServedChain::startService(Chain& chain)
{
    m_service = std::make_unique<ChainService>(chain, m_connection);
    // The config file has configured the chain: looped sounds play from the start, without waiting
    // for a first set of parameters as they do in the player.
    std::unique_ptr<GVariant, decltype(&g_variant_unref)> const nothingNew(
        g_variant_ref_sink(g_variant_new_array(G_VARIANT_TYPE("(sss)"), nullptr, 0)), g_variant_unref);
    m_service->handleSetParameters(nothingNew.get());
}

ServedChain::~ServedChain()
{
    m_service.reset();
    g_object_unref(m_connection);
}

} // namespace Host
} // namespace Zelmar
