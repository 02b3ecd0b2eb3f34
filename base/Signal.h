#pragma once

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

namespace Zelmar {
namespace Tools {

// Keeps a slot alive: the handler stays connected while a copy of its Connection exists.
class Connection
{
public:
    Connection() = default;
    explicit Connection(std::shared_ptr<void> slot) : m_slot(std::move(slot)) {}

    bool isConnected() const { return m_slot != nullptr; }
    void disconnect() { m_slot.reset(); }

private:
    std::shared_ptr<void> m_slot;
};

template <class Signature> class Slot;

template <class... Args> class Slot<void(Args...)>
{
public:
    explicit Slot(std::function<void(Args...)> handler) : m_handler(std::move(handler)) {}
    void operator()(Args... args) const { m_handler(args...); }

private:
    std::function<void(Args...)> m_handler;
};

template <class Signature> class Signal;

// Multi-slot signal. It holds its slots weakly, so dropping the Connection disconnects the handler.
// Connecting and emitting may happen on different control threads; never use it on the audio thread.
template <class... Args> class Signal<void(Args...)>
{
public:
    using tSlot = Slot<void(Args...)>;

    Connection connect(std::function<void(Args...)> handler) { return add(std::move(handler), false); }
    Connection connectFront(std::function<void(Args...)> handler) { return add(std::move(handler), true); }

    // Calls every live slot, front to back; slots connected during the call are not called this time.
    void operator()(Args... args)
    {
        for (auto const& slot : liveSlots())
            (*slot)(args...);
    }

    std::size_t getNumConnections() { return liveSlots().size(); }

private:
    Connection add(std::function<void(Args...)> handler, bool atFront)
    {
        auto slot = std::make_shared<tSlot>(std::move(handler));
        std::lock_guard<std::mutex> lock(m_mutex);
        // A signal that seldom fires would otherwise keep every dropped slot's memory for good.
        m_slots.remove_if([](std::weak_ptr<tSlot> const& entry) { return entry.expired(); });
        if (atFront)
            m_slots.push_front(slot);
        else
            m_slots.push_back(slot);
        return Connection(slot);
    }

    std::vector<std::shared_ptr<tSlot>> liveSlots()
    {
        std::vector<std::shared_ptr<tSlot>> live;
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto it = m_slots.begin(); it != m_slots.end();) {
            if (auto slot = it->lock()) {
                live.push_back(std::move(slot));
                ++it;
            } else {
                it = m_slots.erase(it);
            }
        }
        return live;
    }

    std::mutex m_mutex;
    std::list<std::weak_ptr<tSlot>> m_slots;
};

} // namespace Tools
} // namespace Zelmar
