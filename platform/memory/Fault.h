#ifndef ONDARO_PLATFORM_MEMORY_FAULT_H
#define ONDARO_PLATFORM_MEMORY_FAULT_H

#include <cstdlib>
#include <cstring>

namespace ondaro::memory {

/// Whether this process should do wrong what the name says: ONDARO_MEMORY_FAULT names one fault, by
/// which the conformance kit is tested (conformance/tests/faults.sh).
inline bool Has(const char* fault) {
  static const char* const named = std::getenv("ONDARO_MEMORY_FAULT");
  return named != nullptr && std::strcmp(named, fault) == 0;
}

}  // namespace ondaro::memory

#endif
