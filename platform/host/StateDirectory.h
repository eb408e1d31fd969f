#ifndef ONDARO_PLATFORM_HOST_STATEDIRECTORY_H
#define ONDARO_PLATFORM_HOST_STATEDIRECTORY_H

#include <string>

namespace ondaro::host {

/// The absolute path of everything that the backend keeps, found out by the process's first call:
/// $ONDARO_HOST_STATE, else /var/lib/ondaro where this user may write, else .local/state/ondaro in
/// the home that the password database tells. The directory may not be there yet.
const std::string& StateDirectory();

/// Closed with the object.
class Descriptor {
 public:
  explicit Descriptor(int number) : m_number(number) {}
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Number() const { return m_number; }

 private:
  const int m_number;
};

/// While it lives nothing that is opened gets the number of a standard stream that is closed.
class StandardStreamsHeld {
 public:
  StandardStreamsHeld();
  ~StandardStreamsHeld();
  StandardStreamsHeld(const StandardStreamsHeld&) = delete;
  StandardStreamsHeld& operator=(const StandardStreamsHeld&) = delete;

 private:
  bool m_isHeld[3] = {};
};

// Below the state directory no link is followed, and what is made belongs to whom the directory
// belongs that it is made in: to its owner alone (0600, 0700) or, where that directory is writable
// for its group and setgid, to the group too (0660, 2770).

/// Makes the directory and those above it where they are missing. Throws std::system_error.
void MakeDirectory(const std::string& path);

enum class IfMissing { FAIL, MAKE };

/// Opens a file, close-on-exec, and gives it the mode that it is to have; -1 with `errno` where
/// that cannot be done. With O_PATH no lock on it is touched. Throws std::system_error for what is
/// no regular file.
int OpenStateFile(const std::string& path, int flags, IfMissing ifMissing);

}  // namespace ondaro::host

#endif
