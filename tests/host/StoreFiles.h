#ifndef ONDARO_TESTS_HOST_STOREFILES_H
#define ONDARO_TESTS_HOST_STOREFILES_H

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "SettingsBell.h"

namespace ondaro::test {

/// A number that SQL gives for a database of the store; -1 when it gives none.
inline std::int64_t Sql(const std::filesystem::path& database, const std::string& sql) {
  sqlite3* connection = nullptr;
  std::int64_t number = -1;
  sqlite3_open_v2(database.c_str(), &connection, SQLITE_OPEN_READWRITE, nullptr);
  sqlite3_exec(
      connection, sql.c_str(),
      [](void* result, int, char** values, char**) {
        *static_cast<std::int64_t*>(result) = std::stoll(values[0]);
        return 0;
      },
      &number, nullptr);
  sqlite3_close(connection);
  return number;
}

inline std::uint64_t ReadBellState(const std::filesystem::path& bell) {
  std::uint64_t state = 0;
  std::ifstream file(bell, std::ios::binary);
  file.seekg(offsetof(host::SettingsBellPage, state));
  file.read(reinterpret_cast<char*>(&state), sizeof state);
  return state;
}

/// Also what a dying process does to the file: it is closed for writing.
inline void WriteBellState(const std::filesystem::path& bell, std::uint64_t state) {
  const int fd = open(bell.c_str(), O_WRONLY | O_CLOEXEC);
  [[maybe_unused]] const ssize_t written =
      pwrite(fd, &state, sizeof state, offsetof(host::SettingsBellPage, state));
  close(fd);
}

inline std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Of the files below the directory whose names begin like this, the one with the shortest: the
/// database, not what the engine keeps beside it.
inline std::filesystem::path FindFile(const std::filesystem::path& directory,
                                      const std::string& begin) {
  std::filesystem::path found;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    const bool matches = entry.path().filename().string().rfind(begin, 0) == 0;
    if (matches && (found.empty() || entry.path().native().size() < found.native().size())) {
      found = entry.path();
    }
  }
  return found;
}

}  // namespace ondaro::test

#endif
