#include "tests/support/HeapWatch.h"

#include <atomic>
#include <cstddef>

namespace {
// Static TLS in the executable: reading it never allocates.
thread_local bool t_watched = false;
std::atomic<int> g_watchedThreadHeapCalls{0};

// Only the thread that asked is counted, since GLib's own worker threads may allocate at any time.
void countIfWatching()
{
    if (t_watched)
        g_watchedThreadHeapCalls.fetch_add(1, std::memory_order_relaxed);
}
} // namespace

namespace Zelmar {
namespace Testing {
void watchHeapOnThisThread(bool watch)
{
    t_watched = watch;
}
int takeHeapCallsOfWatchedThreads()
{
    return g_watchedThreadHeapCalls.exchange(0);
}
} // namespace Testing
} // namespace Zelmar

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define ORVANDELDSP_SANITIZED_HEAP 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define ORVANDELDSP_SANITIZED_HEAP 1
#endif
#endif

bool Zelmar::Testing::runsUnderASanitizer()
{
#ifdef ORVANDELDSP_SANITIZED_HEAP
    return true;
#else
    return false;
#endif
}

#ifdef ORVANDELDSP_SANITIZED_HEAP
// A sanitizer owns the allocator and cannot be interposed; it reports every heap call to hooks instead.
#include <sanitizer/allocator_interface.h>

long Zelmar::Testing::heapBytesInUse()
{
    return long(__sanitizer_get_current_allocated_bytes());
}

namespace {
void onMalloc(void const volatile*, size_t)
{
    countIfWatching();
}
void onFree(void const volatile*)
{
    countIfWatching();
}
[[maybe_unused]] int const g_hooksInstalled = __sanitizer_install_malloc_and_free_hooks(onMalloc, onFree);
} // namespace

#else
#include <malloc.h>

long Zelmar::Testing::heapBytesInUse()
{
    return long(mallinfo2().uordblks);
}

// Every heap allocation, C and C++ alike, passes through these.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);

void* malloc(size_t size)
{
    countIfWatching();
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size)
{
    countIfWatching();
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size)
{
    countIfWatching();
    return __libc_realloc(pointer, size);
}
void free(void* pointer)
{
    if (pointer)
        countIfWatching();
    __libc_free(pointer);
}
}
#endif
