#include "tools/RealtimeScheduling.h"

#include <cerrno>
#include <cstring>
#include <pthread.h>
#include <sys/mman.h>

namespace Zelmar {
namespace Host {

namespace {

// Far more than a period of the chain and the PCM calls need.
constexpr size_t c_pretouchedStackBytes = 128 * 1024;

} // namespace

std::string RealtimeScheduling::lockMemory()
{
    // Pages are locked as they are touched: every thread's whole stack reservation would otherwise
    // become resident at once.
    int result = mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT);
    if (result != 0 && errno == EINVAL)
        result = mlockall(MCL_CURRENT | MCL_FUTURE);
    return result == 0 ? "" : std::string("mlockall: ") + std::strerror(errno);
}

std::string RealtimeScheduling::raisePriority(std::thread& thread, int priority)
{
    sched_param parameters{};
    parameters.sched_priority = priority;
    int const error = pthread_setschedparam(thread.native_handle(), SCHED_FIFO, &parameters);
    return error == 0 ? "" : "SCHED_FIFO " + std::to_string(priority) + ": " + std::strerror(error);
}

__attribute__((noinline)) void RealtimeScheduling::pretouchStack()
{
    volatile unsigned char stack[c_pretouchedStackBytes];
    for (size_t i = 0; i < sizeof stack; i += 1024)
        stack[i] = 0;
}

} // namespace Host
} // namespace Zelmar
