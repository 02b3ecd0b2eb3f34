#pragma once

#include <string>
#include <thread>

namespace Zelmar {
namespace Host {

// What a live audio thread asks of the system so that a period is never late for want of the CPU or a
// page: SCHED_FIFO, locked memory and a stack that is already there. Each request answers with an
// empty string, or with what refused it for the user to read.
class RealtimeScheduling
{
public:
    static std::string lockMemory();
    static std::string raisePriority(std::thread& thread, int priority);
    // Called first on the audio thread: faults in (and with locked memory, locks) the stack it will use.
    static void pretouchStack();
};

} // namespace Host
} // namespace Zelmar
