#ifndef ONDARO_PLATFORM_CONFORMANCE_WORKER_H
#define ONDARO_PLATFORM_CONFORMANCE_WORKER_H

#include <string>
#include <vector>

namespace conformance {

/// The clause a test is for, and what it says of it, from the name `SET_01_AStringReadIsANewCopy`.
struct Clause {
  std::string id;
  std::string title;
  std::string test;  // Google Test's full name
};

/// All clauses in the order of their tests; Google Test is initialised.
std::vector<Clause> Clauses();

namespace worker {

inline constexpr char OPTION[] = "--worker";

// A message on CHANNEL is a line of JSON: that a test began, or how it ended.
inline constexpr char TEST[] = "test";
inline constexpr char STATUS[] = "status";  // none when it began
inline constexpr char TEXT[] = "text";
inline constexpr char SECONDS[] = "seconds";

/// Runs the tests that the filter names. The process may end at any time: a port can do that.
int Run(const std::string& filter);

}  // namespace worker
}  // namespace conformance

#endif
