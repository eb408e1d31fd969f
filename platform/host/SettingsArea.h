#ifndef ONDARO_PLATFORM_HOST_SETTINGSAREA_H
#define ONDARO_PLATFORM_HOST_SETTINGSAREA_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "SettingsBell.h"
#include "SettingsCache.h"
#include "SettingsDatabase.h"
#include "SettingsValue.h"

namespace ondaro::host {

/// The keys of one lifetime: a database, its bell and what this process remembers of it.
///
/// Opened by the first call that needs it and again whenever it has failed. A damaged database is
/// set aside under another name, and the call is done on a new one. Without the right to write it
/// is read all the same.
///
/// Any thread. Lock order: the connection's, then the cache's. Throws SettingsError.
class SettingsArea {
 public:
  using Directory = std::function<std::string()>;

  SettingsArea(Directory directory, const char* name, SettingsDatabase::Durability durability)
      : m_directory(std::move(directory)), m_name(name), m_durability(durability) {}
  SettingsArea(const SettingsArea&) = delete;
  SettingsArea& operator=(const SettingsArea&) = delete;

  /// Calls `use` with the value, or none for a missing key. Where nothing has been written since
  /// the key was last read, that is all; else the database is asked. The whole cache ends with each
  /// write of any key: the query it saves costs less than keeping account by key would on a write.
  template <typename Use>
  void Read(std::string_view key, Use use) {
    if (const SettingsBell* bell = m_knownBell.load(std::memory_order_acquire)) {
      const std::uint64_t state = bell->State();
      std::lock_guard lock(m_cacheMutex);
      if (const std::optional<SettingsValue>* value = m_cache.Find(key, state)) {
        use(*value);
        return;
      }
    }
    use(Query(key));
  }

  void Write(std::string_view key, const SettingsValue& value);

  /// The file to watch for changes.
  std::string BellPath();

  /// Keeps the log from here on, until Publish() lets it go; returns the number of the last write.
  std::int64_t Follow();
  void Publish(std::int64_t position);
  void Unfollow();

  /// See SettingsDatabase; none when some of the changes may be trimmed already.
  std::optional<std::vector<SettingsChange>> ChangesAfter(std::int64_t position);
  std::vector<SettingsChange> ChangesAfterGap(std::int64_t position,
                                              const std::vector<std::string>& keys);

  /// Around a fork. No connection may be open during it: the child would share the engine's belief
  /// in locks that only the parent has.
  void BeforeFork();
  void AfterForkInParent();
  void AfterForkInChild();

 private:
  enum class Access { READ, WRITE };

  std::optional<SettingsValue> Query(std::string_view key);
  bool TryWrite(SettingsDatabase& database, std::string_view key, const SettingsValue& value);
  void Remember(std::string_view key, const std::optional<SettingsValue>& value,
                std::uint64_t state);
  SettingsDatabase& Open(Access access);
  void OpenBell(const std::string& path, Access access);
  void OpenDatabase(const std::string& path);
  void SetAside(const std::string& path);
  template <typename Operation>
  auto Attempt(Access access, Operation operation);

  const Directory m_directory;
  const char* const m_name;
  const SettingsDatabase::Durability m_durability;

  std::mutex m_mutex;  // guards all up to the cache
  std::string m_path;  // without suffix; empty until it is known
  std::unique_ptr<SettingsBell> m_bell;
  std::unique_ptr<SettingsDatabase> m_database;
  std::uint64_t m_generation = 0;  // of the database that is open, or was found damaged
  bool m_damaged = false;

  std::atomic<const SettingsBell*> m_knownBell{nullptr};
  std::mutex m_cacheMutex;
  SettingsCache m_cache;
};

}  // namespace ondaro::host

#endif
