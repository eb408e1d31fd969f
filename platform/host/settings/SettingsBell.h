#ifndef ONDARO_PLATFORM_HOST_SETTINGSBELL_H
#define ONDARO_PLATFORM_HOST_SETTINGSBELL_H

#include <ctime>
#include <utility>

#include "Settings.h"
#include "StateDirectory.h"

namespace ondaro::host {

/// The small file beside the database by which its processes tell each other of commits: eight
/// random bytes, new after each commit and zeros from before it on. It holds nothing: whatever
/// becomes of it costs a query. A file descriptor must not be shared with a forked process.
class SettingsBell {
 public:
  /// Opens or makes the file; without the right to write it is for Look() alone, without the right
  /// to read for nothing. Throws std::system_error for what is no file.
  explicit SettingsBell(const std::string& path);

  /// What the file shows. Where two looks are equal and the first was settled, nothing was written
  /// to it between them, also not a number that it had before. Costs one call of the system.
  using Sight = std::pair<time_t, long>;
  Sight Look() const noexcept;
  /// No commit is under way that the sight could hide.
  bool IsSettled(const Sight& sight) const noexcept;

  /// Before a commit and after it, during the writer's turn.
  void Mark() const;
  void Ring() const noexcept;

  bool IsAtPath() const noexcept;
  const std::string& Path() const { return m_path; }

  /// The right to write, in the order of asking: who does not get it at once takes a place in the
  /// queue, and nobody goes before those in front of him. Places are locks of the kernel, on bytes
  /// far beyond the file's end, and go with the process. Throws SettingsError at the deadline.
  class Turn {
   public:
    explicit Turn(const SettingsBell& bell);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    const int m_file;
    const off_t m_place;
  };

 private:
  bool Put(std::uint64_t number) const noexcept;
  [[noreturn]] void Fail() const;

  const std::string m_path;
  const Descriptor m_file;
  mutable std::uint64_t m_random = 0;
};

}  // namespace ondaro::host

#endif
