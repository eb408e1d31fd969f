#ifndef ONDARO_PLATFORM_HOST_SETTINGSBELL_H
#define ONDARO_PLATFORM_HOST_SETTINGSBELL_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace ondaro::host {

/// The bell's file, mapped by every process of the store.
struct SettingsBellPage {
  static constexpr std::size_t PLACES = 64;

  std::uint64_t magic;
  std::atomic<std::uint64_t> state;       ///< see SettingsBell
  std::atomic<std::uint64_t> generation;  ///< how often the database has been replaced
  std::uint64_t rung;                     ///< written only to be noticed
  std::atomic<std::int64_t> awaited;      ///< a writer waits, and asks again before this time
  std::array<std::atomic<std::int64_t>, PLACES> places;  ///< position + 1 of a following process
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

/// The small file beside a database by which its processes tell each other of commits.
///
/// Its state is twice the sequence number of the last write, less one from before that write's
/// commit until after it. So a state that is even and the same before and after means that nothing
/// has been committed between, and a value read under it still holds. A state never comes back: a
/// writer that finds it odd, because the one before died or has yet to settle, takes a number
/// beyond. Whoever watches the file sees each Ring(), and the closing of the file when a process
/// ends, so a writer killed between its commit and its ring is noticed as well.
///
/// Locks are the kernel's, on bytes of the file, and end with the process that holds them. The
/// members without an own word on threads are for one thread at a time.
class SettingsBell {
 public:
  /// Opens or makes the file; throws SettingsError.
  explicit SettingsBell(const std::string& path);
  ~SettingsBell();
  SettingsBell(const SettingsBell&) = delete;
  SettingsBell& operator=(const SettingsBell&) = delete;

  /// Any thread.
  std::uint64_t State() const noexcept { return m_page->state.load(std::memory_order_acquire); }
  static constexpr bool IsSettled(std::uint64_t state) { return state % 2 == 0; }
  static constexpr std::uint64_t SettledState(std::int64_t sequence) {
    return 2 * static_cast<std::uint64_t>(sequence);
  }
  std::uint64_t Generation() const noexcept { return m_page->generation.load(); }

  /// No write has a number above this one. Under the database's write lock, as the next.
  std::int64_t LastSequence() const noexcept;

  /// Before the commit of the write with this number; false when the database has been replaced.
  bool Announce(std::int64_t sequence) noexcept;

  /// After that commit, or its failure; false when another writer has gone on already.
  bool Settle(std::int64_t sequence) noexcept;

  /// Asks the writer of another process to let this one go first, for a moment.
  void AskForWay() noexcept;

  /// Grants that, where the last write was this process's own. The lock alone goes to whoever comes
  /// back first, and one that waits for the disk in between comes back too late each time.
  void GiveWay() const noexcept;

  /// Wakes those who watch the file.
  void Ring() const noexcept;

  /// Tells all processes to open the database anew, and ends what they know of its values.
  void MarkReplaced() noexcept;

  /// Takes a place among the followers, up to now at the very beginning of the log.
  /// With no place left the follower is not waited for.
  void TakePlace();
  void LeavePlace() noexcept;
  bool HasPlace() const noexcept { return m_place.has_value(); }

  /// The write up to which this process has read the log.
  void Publish(std::int64_t position) noexcept;

  /// The position of the slowest living follower; none when nobody follows.
  std::optional<std::int64_t> SlowestPosition() const;

  /// Held while the database is opened or replaced; waits boundedly, then throws SettingsError.
  class OpeningLock {
   public:
    explicit OpeningLock(SettingsBell& bell);
    ~OpeningLock();
    OpeningLock(const OpeningLock&) = delete;
    OpeningLock& operator=(const OpeningLock&) = delete;

   private:
    SettingsBell& m_bell;
  };

 private:
  void Initialise();

  std::string m_path;
  int m_fd = -1;
  SettingsBellPage* m_page = nullptr;
  std::optional<std::size_t> m_place;
  std::uint64_t m_ownState = 0;
};

}  // namespace ondaro::host

#endif
