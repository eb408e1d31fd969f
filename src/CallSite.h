#ifndef ONDARO_SRC_CALLSITE_H
#define ONDARO_SRC_CALLSITE_H

#include <cstddef>
#include <type_traits>

namespace ondaro::log {

constexpr std::size_t fileNameStart(const char* path) {
  std::size_t start = 0;
  for (std::size_t i = 0; path[i] != '\0'; ++i) {
    if (path[i] == '/') {
      start = i + 1;
    }
  }
  return start;
}

}  // namespace ondaro::log

/// The name of this file without its directories, for compilers without __FILE_NAME__ too. A
/// template's argument, since the compiler must compute it then.
#define ONDARO_FILE_NAME \
  (&__FILE__[std::integral_constant<std::size_t, ::ondaro::log::fileNameStart(__FILE__)>::value])

/// Where a function stands. Captured in the function itself and handed to what works for it, so
/// that the log names the function and not its helper.
struct SCallSite {
  const char* file;
  const char* function;
  const char* signature;
  int line;
};

#define ONDARO_CALL_SITE \
  SCallSite { ONDARO_FILE_NAME, __func__, __PRETTY_FUNCTION__, __LINE__ }

#endif
