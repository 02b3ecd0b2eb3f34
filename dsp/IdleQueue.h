#pragma once

#include "base/MainLoopCallback.h"

#include <functional>
#include <list>
#include <mutex>

namespace Zelmar {

// Hands items from a worker thread to the main loop: push() appends under a mutex and schedules a
// main-loop job that passes every queued item, in order, to the handler outside the lock.
// Not for the audio thread (push locks and allocates).
template <class T> class IdleQueue
{
public:
    explicit IdleQueue(std::function<void(T const&)> handler)
        : m_handler(std::move(handler)), m_callback([this] { onIdle(); })
    {
    }

    void push(T item)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_items.push_back(std::move(item));
        m_callback.schedule();
    }

    bool isEmpty() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_items.empty();
    }

    void onIdle()
    {
        std::list<T> items;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            items.swap(m_items);
        }
        for (auto const& item : items)
            m_handler(item);
    }

private:
    std::function<void(T const&)> m_handler;
    mutable std::mutex m_mutex;
    std::list<T> m_items;
    Tools::MainLoopCallback m_callback;
};

} // namespace Zelmar
