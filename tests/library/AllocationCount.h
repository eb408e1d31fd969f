#ifndef ONDARO_TESTS_LIBRARY_ALLOCATIONCOUNT_H
#define ONDARO_TESTS_LIBRARY_ALLOCATIONCOUNT_H

#include <atomic>

/// How often this process, the library in it included, has called operator new.
extern std::atomic<int> g_allocations;

#endif
