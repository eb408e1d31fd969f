#ifndef ONDARO_PLATFORM_HOST_SETTINGSDATABASE_H
#define ONDARO_PLATFORM_HOST_SETTINGSDATABASE_H

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "SettingsValue.h"

namespace ondaro::host {

/// One connection to one database: the values and the log of their changes.
///
/// Knows nothing of the bell, of other processes beyond their locks, and of what a key may look
/// like. One thread at a time. Everything throws SettingsError and leaves no transaction open.
class SettingsDatabase {
 public:
  enum class Durability {
    SYNCED,    ///< what is committed outlives a loss of power
    UNSYNCED,  ///< what is committed outlives the process
  };

  /// Opens the file or makes it; a new log begins after `floor`. While a call waits for another
  /// process, `onWait` is called again and again.
  SettingsDatabase(const std::string& path, Durability durability, std::int64_t floor,
                   std::function<void()> onWait);
  SettingsDatabase(const SettingsDatabase&) = delete;
  SettingsDatabase& operator=(const SettingsDatabase&) = delete;

  std::optional<SettingsValue> Get(std::string_view key);

  /// The number of the last write.
  std::int64_t LastSequence();

  /// Some of the writes after `position`, oldest first; empty when there are none.
  std::vector<SettingsChange> ChangesAfter(std::int64_t position);

  /// The same for one whose next writes may be trimmed already: of those it gets the last one of
  /// each of its keys that has not been written since.
  std::vector<SettingsChange> ChangesAfterGap(std::int64_t position,
                                              const std::vector<std::string>& keys);

  /// Takes back what a failed commit may have left in the engine's log: written whole, but not
  /// synced, it would be found committed by whoever reads that log anew. False when it stays there;
  /// nobody reads the log anew while this connection is open.
  bool Revoke() noexcept;

  /// A write transaction, rolled back unless committed.
  class Write {
   public:
    explicit Write(SettingsDatabase& database);
    ~Write();
    Write(const Write&) = delete;
    Write& operator=(const Write&) = delete;

    /// Sets the value and logs the change under a number above `last`, which it returns.
    std::int64_t Append(std::string_view key, const SettingsValue& value, std::int64_t last);
    void TrimLog(std::int64_t upTo);
    void Commit();

   private:
    SettingsDatabase& m_database;
    bool m_open = true;
  };

 private:
  class Query;

  struct Closer {
    void operator()(sqlite3* connection) const noexcept { sqlite3_close(connection); }
    void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
  };
  using Connection = std::unique_ptr<sqlite3, Closer>;
  using Statement = std::unique_ptr<sqlite3_stmt, Closer>;

  static int OnBusy(void* self, int count) noexcept;
  void Configure(Durability durability);
  void MakeTables(std::int64_t floor);
  void Execute(const std::string& sql);
  Statement Prepare(const char* sql);
  void RunPlain(const Statement& statement);
  void CollectChanges(std::int64_t position, std::vector<SettingsChange>& changes);
  void CollectLastValues(std::int64_t position, std::int64_t floor,
                         const std::vector<std::string>& keys,
                         std::vector<SettingsChange>& changes);
  [[noreturn]] void Fail(int code) const;

  std::string m_path;
  std::function<void()> m_onWait;
  std::chrono::steady_clock::time_point m_busyDeadline;
  bool m_hasFailedCommit = false;
  Connection m_connection;  // before its statements, so that they go first
  Statement m_get;
  Statement m_getWithSequence;
  Statement m_lastSequence;
  Statement m_floor;
  Statement m_changes;
  Statement m_begin;
  Statement m_beginWrite;
  Statement m_append;
  Statement m_put;
  Statement m_trim;
  Statement m_setFloor;
  Statement m_commit;
  Statement m_rollback;
};

}  // namespace ondaro::host

#endif
