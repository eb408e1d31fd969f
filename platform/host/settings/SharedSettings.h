#ifndef ONDARO_PLATFORM_HOST_SHAREDSETTINGS_H
#define ONDARO_PLATFORM_HOST_SHAREDSETTINGS_H

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <unordered_map>

#include "SettingsBell.h"
#include "SettingsDatabase.h"

namespace ondaro::host {

/// A mutex that goes to the threads in the order in which they asked: with others one that writes
/// in a row keeps it.
class SettingsMutex {
 public:
  bool LockUntil(SettingsDeadline::Clock::time_point end) {
    std::unique_lock lock(m_mutex);
    if (!m_isTaken && m_waiting.empty()) {
      m_isTaken = true;
      return true;
    }
    const auto place = m_waiting.insert(m_waiting.end(), std::this_thread::get_id());
    const bool isTaken =
        m_changed.wait_until(lock, end, [&] { return !m_isTaken && m_waiting.begin() == place; });
    m_waiting.erase(place);
    m_isTaken = m_isTaken || isTaken;
    if (!isTaken) {
      m_changed.notify_all();
    }
    return isTaken;
  }
  void Unlock() {
    const std::lock_guard lock(m_mutex);
    m_isTaken = false;
    m_changed.notify_all();
  }
  /// In a forked child, which has none of the threads that waited.
  void Renew() { new (this) SettingsMutex; }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::list<std::thread::id> m_waiting;
  bool m_isTaken = false;
};

/// What a process has of the settings in one directory: the connection, the bell, and what it
/// remembers of values read before.
///
/// Opened by the first call that needs it, and anew when a call has failed or the files are others
/// than those at their paths: a write looks before it is acknowledged, all else every quarter of a
/// second. A damaged database is set aside under another name, and the call is done on a new one.
///
/// Any thread; a call waits no longer than SETTINGS_LONGEST_WAIT. Throws std::exception.
class SharedSettings {
 public:
  using Value = std::optional<SettingsValue>;
  using Changes = std::vector<SettingsChange>;

  /// `directory` is asked by the first call that needs it.
  explicit SharedSettings(std::function<std::string()> directory)
      : m_findDirectory(std::move(directory)) {}
  /// Of the last process: leaves one file that holds everything.
  ~SharedSettings() { Close(); }
  SharedSettings(const SharedSettings&) = delete;
  SharedSettings& operator=(const SharedSettings&) = delete;

  /// What is to be watched; there once a call has succeeded.
  std::string BellPath() const { return m_directory + "/settings.bell"; }

  /// Calls `use` with the value, or none for a missing key. Where nothing has been written since
  /// the key was last read, that takes a look at the bell; else the database is asked.
  template <typename Use>
  void Read(const std::string& key, Use use) {
    SettingsBell::Sight sight;
    {
      std::lock_guard lock(m_cacheMutex);
      sight = m_bell != nullptr ? m_bell->Look() : sight;
      if (const Value* known = Remembered(key, sight)) {
        use(*known);
        return;
      }
    }
    use(Query(key, sight));
  }

  void Write(const std::string& key, const SettingsValue& value);

  /// A place in the order of all writes. In another database the numbers are others.
  struct Position {
    std::uint64_t database = 0;
    std::int64_t number = 0;
  };
  Position Last();

  /// The next changes of the wanted keys after `position`, which moves on: those in the log or,
  /// where that does not go back so far, the last one of each of `keys`. True when there may be
  /// more.
  bool ChangesAfter(Position& position, const SettingsDatabase::Wanted& isWanted,
                    const std::function<std::vector<std::string>()>& keys, Changes& changes);

  void Close() noexcept;

  /// Around a fork. No connection may be open during it: the child would share the engine's belief
  /// in locks that only the parent has.
  void BeforeFork();
  void AfterForkInParent();
  void AfterForkInChild();

 private:
  using Clock = SettingsDeadline::Clock;
  using FileId = std::pair<dev_t, ino_t>;

  struct Entry {
    Value value;
    std::uint64_t generation = 0;
  };

  const Value* Remembered(const std::string& key, const SettingsBell::Sight& sight);
  void Remember(const std::string& key, const Value& value, const SettingsBell::Sight& sight);
  Value Query(const std::string& key, const SettingsBell::Sight& before);
  template <typename Operation>
  auto Attempt(Operation operation);
  void Open();
  void OpenBell();
  void OpenDatabase();
  void Renew();
  void SetAside();

  const std::function<std::string()> m_findDirectory;

  SettingsMutex m_mutex;  // guards all up to the cache
  std::string m_directory;
  std::string m_path;  // of the database, without links
  FileId m_file;
  std::unique_ptr<SettingsDatabase> m_database;
  std::uint64_t m_databases = 0;  // seen at the path
  Clock::time_point m_lookAgain;
  bool m_wasOpen = false;

  std::mutex m_cacheMutex;
  std::unique_ptr<const SettingsBell> m_bell;  // changed under both
  std::unordered_map<std::string, Entry> m_cache;
  std::size_t m_cacheSize = 0;
  SettingsBell::Sight m_sight;     // with which were read
  std::uint64_t m_generation = 0;  // the entries of this number
  Clock::time_point m_mustAsk;
};

}  // namespace ondaro::host

#endif
