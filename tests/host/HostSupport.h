#ifndef ONDARO_TESTS_HOST_HOSTSUPPORT_H
#define ONDARO_TESTS_HOST_HOSTSUPPORT_H

#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "support/Child.h"
#include "support/Files.h"

namespace ondaro::test {

/// Where a sync costs nothing, for tests of what is not the disk's.
inline std::filesystem::path FastDirectory() {
  const std::filesystem::path memory = "/dev/shm";
  return access(memory.c_str(), W_OK) == 0 ? memory : std::filesystem::temp_directory_path();
}

/// The process's own state directory, from the first call on. The settings in it outlast a test.
inline const TemporaryDirectory& StateDirectory() {
  static const TemporaryDirectory directory(FastDirectory());
  setenv("ONDARO_HOST_STATE", directory.Path().c_str(), 1);
  return directory;
}

}  // namespace ondaro::test

#endif
