#ifndef ONDARO_PLATFORM_MEMORY_SIMULATEDSET_H
#define ONDARO_PLATFORM_MEMORY_SIMULATEDSET_H

// A set that a test of a host program makes up as it goes: by writing these settings keys, each an
// integer.

namespace ondaro::memory {

inline constexpr char FEATURE_PREFIX[] = "set/feature/";  // and a feature's key: its value
inline constexpr char POWER_STATE[] = "set/power";        // missing: usable; negative: unknown
inline constexpr char APPLICATION_PREFIX[] = "set/app/";  // and an id: the process id

}  // namespace ondaro::memory

#endif
