#pragma once

#include "base/MainLoopCallback.h"
#include "tools/LiveChain.h"

#include <atomic>
#include <functional>
#include <memory>

namespace Zelmar {
namespace Host {

// Passes chains between the main loop and the audio thread, one pointer each way: the main loop offers
// the next chain, the audio thread swaps it in between two periods and hands back the one it replaced,
// which the main loop destroys. One handover at a time. Made on the main loop's thread.
class ChainHandover
{
public:
    explicit ChainHandover(std::unique_ptr<LiveChain> first);
    // Destroys every chain; the audio thread must be done with them.
    ~ChainHandover();

    ChainHandover(ChainHandover const&) = delete;
    ChainHandover& operator=(ChainHandover const&) = delete;

    // Main loop: false (keeping `next`) while the last handover is still under way. `onSwapped` runs on
    // the main loop once `next` plays and the chain it replaced is gone.
    bool offer(std::unique_ptr<LiveChain>& next, std::function<void()> onSwapped);
    bool isUnderWay() const;

    // The chain playing. The main loop may read it too: chains are destroyed only there.
    LiveChain& getCurrent() const { return *m_current.load(std::memory_order_acquire); }

    // Audio thread.
    bool hasOffer() const { return m_offered.load(std::memory_order_acquire) != nullptr; }
    LiveChain& swap();

private:
    void destroyReplaced();

    std::atomic<LiveChain*> m_current;
    std::atomic<LiveChain*> m_offered{nullptr};
    std::atomic<LiveChain*> m_replaced{nullptr};
    std::function<void()> m_onSwapped;
    Tools::MainLoopCallback m_destroyReplaced;
};

} // namespace Host
} // namespace Zelmar
