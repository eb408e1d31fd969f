#ifndef ONDARO_TESTS_SUPPORT_PROCESSUSE_H
#define ONDARO_TESTS_SUPPORT_PROCESSUSE_H

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace ondaro::test {

/// What a process has of memory and open files now.
struct ProcessUse {
  explicit ProcessUse(pid_t process) {
    const std::string directory = "/proc/" + std::to_string(process);
    std::ifstream(directory + "/statm") >> kilobytes >> kilobytes;
    kilobytes *= sysconf(_SC_PAGESIZE) / 1024;
    descriptors = std::distance(std::filesystem::directory_iterator(directory + "/fd"), {});
  }

  long kilobytes = 0;
  long descriptors = 0;
};

// Sanitizers keep what was freed.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

}  // namespace ondaro::test

#endif
