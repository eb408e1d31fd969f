#include "SettingsBell.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <thread>

namespace ondaro::host {
namespace {

using Clock = SettingsDeadline::Clock;

constexpr off_t TURN = 0;  // the byte that the writer has locked; places are behind it

int Open(const std::string& path) {
  const int file = OpenStateFile(path, O_RDWR, IfMissing::MAKE);
  return file >= 0 ? file : OpenStateFile(path, O_RDONLY, IfMissing::FAIL);
}

bool Lock(int file, int command, short type, off_t from, off_t length = 1) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = from;
  lock.l_len = length;
  return fcntl(file, command, &lock) == 0 && (command == F_OFD_SETLK || lock.l_type != F_UNLCK);
}

/// Whoever stands still in the queue is not waited for.
bool IsAnybodyBefore(int file, off_t place) {
  constexpr off_t LONGEST = std::chrono::microseconds(SETTINGS_LONGEST_WAIT).count() * 3 / 4;
  return Lock(file, F_OFD_GETLK, F_WRLCK, std::max<off_t>(place - LONGEST, TURN + 1), LONGEST);
}

off_t NewPlace() {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
      .count();
}

}  // namespace

SettingsBell::SettingsBell(const std::string& path) : m_path(path), m_file(Open(path)) {}

SettingsBell::Sight SettingsBell::Look() const noexcept {
  struct stat status {};
  fstat(m_file.Number(), &status);
  return {status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

bool SettingsBell::IsSettled(const Sight& sight) const noexcept {
  // By the clock of the file's times, whose next tick must have come: a write within the same one
  // would not be seen. Some file systems know whole seconds only.
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  const bool hasTicked =
      sight.second != 0 ? sight < Sight(now.tv_sec, now.tv_nsec) : sight.first + 1 < now.tv_sec;
  std::uint64_t number = 0;
  return hasTicked && pread(m_file.Number(), &number, sizeof number, 0) == sizeof number &&
         number != 0;
}

void SettingsBell::Mark() const {
  if (!Put(0)) {
    Fail();
  }
}

void SettingsBell::Ring() const noexcept {
  if (m_random == 0) {
    [[maybe_unused]] const ssize_t seeded = getrandom(&m_random, sizeof m_random, 0);
  }
  // A full period without 0, which marks.
  m_random = m_random * 6364136223846793005U + 1442695040888963407U;
  Put(m_random | 1U);
}

bool SettingsBell::Put(std::uint64_t number) const noexcept {
  return pwrite(m_file.Number(), &number, sizeof number, 0) == sizeof number;
}

void SettingsBell::Fail() const {
  throw SettingsError(SettingsError::Kind::FAILED,
                      m_path + ": " + std::generic_category().message(errno));
}

bool SettingsBell::IsAtPath() const noexcept {
  struct stat own {};
  struct stat there {};
  return fstat(m_file.Number(), &own) == 0 && stat(m_path.c_str(), &there) == 0 &&
         own.st_ino == there.st_ino && own.st_dev == there.st_dev;
}

SettingsBell::Turn::Turn(const SettingsBell& bell)
    : m_file(bell.m_file.Number()), m_place(NewPlace()) {
  constexpr int FIRST_TRIES = 20;  // as long as a write takes that is not synced
  constexpr std::chrono::microseconds PAUSE{100};
  // At once where nobody writes and nobody waits.
  if (Lock(m_file, F_OFD_SETLK, F_WRLCK, TURN, m_place)) {
    return;
  }
  if (errno != EAGAIN && errno != EACCES) {
    bell.Fail();
  }
  Lock(m_file, F_OFD_SETLK, F_RDLCK, m_place);
  for (int tries = 1; !SettingsDeadline::HasPassed(); ++tries) {
    tries < FIRST_TRIES ? std::this_thread::yield() : std::this_thread::sleep_for(PAUSE);
    if (!IsAnybodyBefore(m_file, m_place) && Lock(m_file, F_OFD_SETLK, F_WRLCK, TURN)) {
      Lock(m_file, F_OFD_SETLK, F_UNLCK, m_place);
      return;
    }
  }
  Lock(m_file, F_OFD_SETLK, F_UNLCK, m_place);
  throw SettingsError(SettingsError::Kind::BUSY, bell.m_path + ": others keep writing");
}

SettingsBell::Turn::~Turn() { Lock(m_file, F_OFD_SETLK, F_UNLCK, TURN, m_place); }

}  // namespace ondaro::host
