#include "tools/ChainHandover.h"

namespace Zelmar {
namespace Host {

ChainHandover::ChainHandover(std::unique_ptr<LiveChain> first)
    : m_current(first.release()), m_destroyReplaced([this] { destroyReplaced(); })
{
}

ChainHandover::~ChainHandover()
{
    delete m_replaced.load();
    delete m_offered.load();
    delete m_current.load();
}

bool ChainHandover::offer(std::unique_ptr<LiveChain>& next, std::function<void()> onSwapped)
{
    if (isUnderWay())
        return false;
    m_onSwapped = std::move(onSwapped);
    m_offered.store(next.release(), std::memory_order_release);
    return true;
}

bool ChainHandover::isUnderWay() const
{
    // swap() hands the replaced chain back before it clears the offer, so one of them is always seen.
    return m_offered.load(std::memory_order_acquire) || m_replaced.load(std::memory_order_acquire);
}

LiveChain& ChainHandover::swap()
{
    LiveChain* const next = m_offered.load(std::memory_order_acquire);
    m_replaced.store(m_current.load(std::memory_order_relaxed), std::memory_order_release);
    m_current.store(next, std::memory_order_release);
    m_offered.store(nullptr, std::memory_order_release);
    m_destroyReplaced.schedule();
    return *next;
}

void ChainHandover::destroyReplaced()
{
    delete m_replaced.exchange(nullptr, std::memory_order_acq_rel);
    if (auto const onSwapped = std::move(m_onSwapped))
        onSwapped();
}

} // namespace Host
} // namespace Zelmar
