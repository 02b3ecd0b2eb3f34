#include "dsp/DropReport.h"

#include "base/Tracer.h"

namespace Zelmar {

DropReport::DropReport(Tools::String who, Tools::String unit)
    : m_who(std::move(who)), m_unit(std::move(unit)), m_callback([this] { report(); })
{
}

void DropReport::add(uint32_t count)
{
    if (count == 0)
        return;
    m_unreported.fetch_add(count, std::memory_order_relaxed);
    m_total.fetch_add(count, std::memory_order_relaxed);
    m_callback.schedule();
}

void DropReport::report()
{
    uint32_t const count = m_unreported.exchange(0, std::memory_order_relaxed);
    if (count > 0)
        Tools::trace(Tools::Tracer::Error, m_who, "dropped", count, m_unit,
                     "because its worker thread fell behind");
}

} // namespace Zelmar
