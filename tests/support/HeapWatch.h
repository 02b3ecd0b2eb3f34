#pragma once

namespace Zelmar {
namespace Testing {

// Counts every heap call (malloc, calloc, realloc, free) made on threads that asked to be watched.
// Under a sanitizer the count comes from its allocator hooks, else from interposing the allocator.
void watchHeapOnThisThread(bool watch);
int takeHeapCallsOfWatchedThreads();
// Bytes the program holds on the heap now, all threads together.
long heapBytesInUse();
// A sanitizer's shadow memory and histories grow the resident set of every process it watches.
bool runsUnderASanitizer();

} // namespace Testing
} // namespace Zelmar
