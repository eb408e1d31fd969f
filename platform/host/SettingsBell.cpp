#include "SettingsBell.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "SettingsError.h"
#include "SettingsLimits.h"

namespace ondaro::host {
namespace {

constexpr std::uint64_t MAGIC = 0x31304c4c45425253;  // "SRBELL01" in memory
constexpr std::int64_t MOMENT = std::chrono::nanoseconds(std::chrono::milliseconds(2)).count();
constexpr off_t OPENING = 0;
constexpr off_t FIRST_PLACE = 1;

constexpr off_t ByteOfPlace(std::size_t place) { return FIRST_PLACE + static_cast<off_t>(place); }

/// The same clock for all processes.
std::int64_t Now() noexcept {
  return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct flock LockOf(off_t byte, short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  return lock;
}

bool SetLock(int fd, off_t byte, short type) noexcept {
  struct flock lock = LockOf(byte, type);
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

bool IsHeldByAnother(int fd, off_t byte) noexcept {
  struct flock lock = LockOf(byte, F_WRLCK);
  return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

}  // namespace

SettingsBell::SettingsBell(const std::string& path)
    : m_path(path), m_fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR)) {
  if (m_fd < 0) {
    throw SystemFailure("open " + path);
  }
  try {
    OpeningLock lock(*this);
    Initialise();
  } catch (...) {
    close(m_fd);
    throw;
  }
}

SettingsBell::~SettingsBell() {
  munmap(m_page, sizeof(SettingsBellPage));
  close(m_fd);
}

void SettingsBell::Initialise() {
  std::uint64_t magic = 0;
  struct stat status = {};
  const bool usable = fstat(m_fd, &status) == 0 &&
                      status.st_size >= static_cast<off_t>(sizeof(SettingsBellPage)) &&
                      pread(m_fd, &magic, sizeof magic, 0) == sizeof magic && magic == MAGIC;
  if (!usable) {
    // Written, not truncated to its size: a store to a mapped hole ends the process on a full disk.
    std::array<std::uint64_t, sizeof(SettingsBellPage) / sizeof(std::uint64_t)> page = {MAGIC};
    if (pwrite(m_fd, page.data(), sizeof page, 0) != sizeof page) {
      throw SystemFailure("write " + m_path);
    }
  }
  void* memory =
      mmap(nullptr, sizeof(SettingsBellPage), PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
  if (memory == MAP_FAILED) {
    throw SystemFailure("map " + m_path);
  }
  m_page = static_cast<SettingsBellPage*>(memory);
}

std::int64_t SettingsBell::LastSequence() const noexcept {
  return static_cast<std::int64_t>((m_page->state.load() + 1) / 2);
}

bool SettingsBell::Announce(std::int64_t sequence) noexcept {
  const std::uint64_t announced = SettledState(sequence) - 1;
  std::uint64_t seen = m_page->state.load();
  while (seen < announced) {
    if (m_page->state.compare_exchange_weak(seen, announced)) {
      return true;
    }
  }
  return false;
}

bool SettingsBell::Settle(std::int64_t sequence) noexcept {
  std::uint64_t announced = SettledState(sequence) - 1;
  m_ownState = SettledState(sequence);
  return m_page->state.compare_exchange_strong(announced, announced + 1);
}

void SettingsBell::AskForWay() noexcept { m_page->awaited.store(Now() + MOMENT); }

void SettingsBell::GiveWay() const noexcept {
  constexpr std::chrono::microseconds PAUSE{50};
  const std::int64_t start = Now();
  for (std::int64_t now = start;
       now < start + MOMENT && now < m_page->awaited.load() && State() == m_ownState; now = Now()) {
    std::this_thread::sleep_for(PAUSE);
  }
}

void SettingsBell::Ring() const noexcept {
  // A store to mapped memory is nothing that a watcher is told of.
  const std::uint64_t state = State();
  [[maybe_unused]] const ssize_t written =
      pwrite(m_fd, &state, sizeof state, offsetof(SettingsBellPage, rung));
}

void SettingsBell::MarkReplaced() noexcept {
  std::uint64_t seen = m_page->state.load();
  while (!m_page->state.compare_exchange_weak(seen, (seen | 1) + 1)) {
  }
  m_page->generation.fetch_add(1);
  Ring();
}

void SettingsBell::TakePlace() {
  for (std::size_t place = 0; place < SettingsBellPage::PLACES && !m_place; ++place) {
    if (SetLock(m_fd, ByteOfPlace(place), F_WRLCK)) {
      m_place = place;
      Publish(0);
    }
  }
}

void SettingsBell::LeavePlace() noexcept {
  if (m_place) {
    m_page->places[*m_place].store(0);
    SetLock(m_fd, ByteOfPlace(*m_place), F_UNLCK);
    m_place.reset();
  }
}

void SettingsBell::Publish(std::int64_t position) noexcept {
  if (m_place) {
    m_page->places[*m_place].store(position + 1);
  }
}

std::optional<std::int64_t> SettingsBell::SlowestPosition() const {
  std::optional<std::int64_t> slowest;
  for (std::size_t place = 0; place < SettingsBellPage::PLACES; ++place) {
    const std::int64_t taken = m_page->places[place].load();
    // The number of one that died stays behind, without its lock.
    if (taken > 0 && (m_place == place || IsHeldByAnother(m_fd, ByteOfPlace(place)))) {
      slowest = std::min(slowest.value_or(taken - 1), taken - 1);
    }
  }
  return slowest;
}

SettingsBell::OpeningLock::OpeningLock(SettingsBell& bell) : m_bell(bell) {
  constexpr std::chrono::milliseconds PAUSE{1};
  const auto deadline = std::chrono::steady_clock::now() + SETTINGS_LONGEST_WAIT;
  while (!SetLock(bell.m_fd, OPENING, F_WRLCK)) {
    if (errno != EAGAIN && errno != EACCES) {
      throw SystemFailure("lock " + bell.m_path);
    }
    if (std::chrono::steady_clock::now() > deadline) {
      throw SettingsError(SettingsError::Kind::BUSY, bell.m_path + " stays locked");
    }
    std::this_thread::sleep_for(PAUSE);
  }
}

SettingsBell::OpeningLock::~OpeningLock() { SetLock(m_bell.m_fd, OPENING, F_UNLCK); }

}  // namespace ondaro::host
