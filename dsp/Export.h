#pragma once

// What the shared library exports: the classes a host uses carry this mark. The library is compiled
// with everything else hidden, so its internals can change without breaking a host built against it.
#define ORVANDELDSP_EXPORT __attribute__((visibility("default")))
