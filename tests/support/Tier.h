#ifndef ONDARO_TESTS_SUPPORT_TIER_H
#define ONDARO_TESTS_SUPPORT_TIER_H

#include <cstdlib>
#include <string>

namespace ondaro::test {

/// How much a generating test does: ONDARO_TEST_TIER is "long", "full" or, for every commit, unset.
template <typename T>
T ByTier(T commit, T longer, T full) {
  const char* tier = std::getenv("ONDARO_TEST_TIER");
  const std::string name = tier != nullptr ? tier : "";
  return name == "full" ? full : name == "long" ? longer : commit;
}

}  // namespace ondaro::test

#endif
