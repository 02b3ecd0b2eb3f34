#pragma once

namespace Zelmar {
namespace Testing {

// Counts every heap call (malloc, calloc, realloc, free) made on threads that asked to be watched.
// Implemented beside the process-wide allocator interposition in AllocationTest.cpp.
void watchHeapOnThisThread(bool watch);
int takeHeapCallsOfWatchedThreads();

} // namespace Testing
} // namespace Zelmar
