#pragma once

#include <atomic>
#include <cerrno>
#include <semaphore.h>

namespace Zelmar {

// Wakes one worker thread from any thread, the audio thread included, without ever blocking the
// caller. A semaphore rather than a condition variable: sem_post is an atomic increment plus a futex
// wake, whereas pthread_cond_broadcast takes the condition's internal lock. Notifications made
// before the worker has woken collapse into one, so the count stays at 0 or 1.
class WorkerWakeup
{
public:
    WorkerWakeup() { sem_init(&m_semaphore, 0, 0); }
    ~WorkerWakeup() { sem_destroy(&m_semaphore); }

    WorkerWakeup(WorkerWakeup const&) = delete;
    WorkerWakeup& operator=(WorkerWakeup const&) = delete;

    void notify()
    {
        if (!m_pending.exchange(true))
            sem_post(&m_semaphore);
    }

    // Worker thread: returns after a notify() made since the previous return (or before the first).
    void wait()
    {
        while (sem_wait(&m_semaphore) != 0 && errno == EINTR) {
        }
        m_pending.store(false);
    }

private:
    sem_t m_semaphore;
    std::atomic<bool> m_pending{false};
};

} // namespace Zelmar
