#ifndef ONDARO_TESTS_LIBRARY_ALLOCATIONS_H
#define ONDARO_TESTS_LIBRARY_ALLOCATIONS_H

#include <atomic>

/// Of the test executable, but for those of the scripted platform.
namespace Allocations {
inline std::atomic<int> count{0};
/// The numbers of those that fail.
inline std::atomic<int> firstFailing{0}, lastFailing{0};
}  // namespace Allocations

#endif
