#pragma once

#include <functional>
#include <glib.h>

namespace Zelmar {
namespace Tools {

// One-shot timer on the main context of the thread that made it. Times are given as
// (seconds, milliseconds, microseconds) and added up, so refresh(0, 100, 0) arms it for 100 ms.
// A fresh timer's timeout is 0: its first refresh() fires on the next main loop iteration.
class Expiration
{
public:
    explicit Expiration(std::function<void()> callback = {}, int priority = G_PRIORITY_DEFAULT);
    ~Expiration();

    Expiration(Expiration const&) = delete;
    Expiration& operator=(Expiration const&) = delete;

    void setCallback(std::function<void()> callback) { m_callback = std::move(callback); }

    // Re-arms with the current timeout; an armed timer starts counting again.
    void refresh();
    void refresh(unsigned int seconds, unsigned int milliseconds, unsigned int microseconds);
    void cancel();

    bool isArmed() const { return m_source != nullptr; }
    guint64 getTimeoutMicroseconds() const { return m_timeoutUs; }

private:
    static gboolean onTimeout(gpointer self);

    std::function<void()> m_callback;
    int m_priority;
    GMainContext* m_context;
    GSource* m_source = nullptr;
    guint64 m_timeoutUs = 0;
};

} // namespace Tools
} // namespace Zelmar
