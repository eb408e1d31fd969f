#ifndef ONDARO_PLATFORM_HOST_SETTINGSDATABASE_H
#define ONDARO_PLATFORM_HOST_SETTINGSDATABASE_H

#include <sqlite3.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "Settings.h"
#include "StateDirectory.h"

namespace ondaro::host {

/// One connection to the database: the values and the log of their changes.
///
/// Knows nothing of the bell, of other processes beyond their locks, and of what a key may look
/// like. One thread at a time; waits until SettingsDeadline. Everything throws SettingsError and
/// leaves no transaction open.
class SettingsDatabase {
 public:
  /// Opens the file, and makes its tables where they are missing.
  explicit SettingsDatabase(const std::string& path);
  SettingsDatabase(const SettingsDatabase&) = delete;
  SettingsDatabase& operator=(const SettingsDatabase&) = delete;

  /// True where nothing may be written, and what others write from now on is not seen.
  bool IsAlone() const { return m_isAlone; }

  /// What the engine's own log holds goes into the file when this connection is closed, if it is
  /// the last one.
  void FoldWhenClosed() noexcept;

  /// False once a file at its path is another one, or the content of the database and the engine's
  /// log beside it, or what this connection knows of them, do not belong together: a copy was put
  /// in its place.
  bool IsCurrent();

  std::optional<SettingsValue> Get(std::string_view key);

  /// The number of the last write.
  std::int64_t LastNumber();

  /// The writes of some keys, oldest first, from the log.
  struct Batch {
    std::vector<SettingsChange> changes;
    std::int64_t upTo = 0;  ///< all writes up to this one have been looked at
    bool hasMore = false;
  };
  using Wanted = std::function<bool(const std::string& key)>;

  /// A part of what came after `position`; none where the log does not go back so far.
  std::optional<Batch> ChangesAfter(std::int64_t position, const Wanted& isWanted);

  /// Of each key its last write, if that came after `position`.
  Batch LastChanges(std::int64_t position, const std::vector<std::string>& keys);

  /// Takes back what a failed commit may have left in the engine's log: written whole, but not
  /// synced, it would be found committed by whoever reads that log anew. False when it stays there;
  /// nobody reads the log anew while this connection is open.
  bool Revoke() noexcept;

  /// A write transaction, rolled back unless committed; REPLACED unless the database is current.
  class Write {
   public:
    /// Keeps all others from writing.
    explicit Write(SettingsDatabase& database);
    /// Sets the value and logs the change. Unless the key lives until the next boot, that outlives
    /// a loss of power once it is committed.
    Write(SettingsDatabase& database, std::string_view key, const SettingsValue& value);
    ~Write();
    Write(const Write&) = delete;
    Write& operator=(const Write&) = delete;

    void Commit();

   private:
    void RollBack() noexcept;
    void Append(std::string_view key, const SettingsValue& value);

    SettingsDatabase& m_database;
    bool m_isOpen = true;
  };

 private:
  class Query;

  struct Closer {
    void operator()(sqlite3* connection) const noexcept { sqlite3_close(connection); }
    void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
  };

  void Connect();
  SettingsDatabase& SetDurable(bool isDurable);
  void MakeTables();
  void Sign();
  void BeginBoot();
  void TrimLog(std::int64_t last, std::int64_t end);
  struct Header;
  Header ReadHeader() const;
  bool OpenLog();
  void Execute(const std::string& sql);
  [[noreturn]] void Fail(int code) const;
  [[noreturn]] void FailReplaced() const;

  const std::string m_path;
  const bool m_isAlone;
  bool m_hasLog = false;  // the engine's has been seen
  std::unique_ptr<const Descriptor> m_log;
  using FilesBeside = std::pair<ino_t, ino_t>;
  FilesBeside m_beside;                                 // once the engine has opened them
  std::string m_signature = "PRAGMA application_id=0";  // the statement that writes
  std::uint32_t m_signed = 0;                           // this session's number
  std::uint32_t m_changes = 0;                          // in the file when it had not
  bool m_isOfThisBoot = false;
  bool m_isDurable = true;
  bool m_hasFailedCommit = false;
  sqlite3_file* m_file = nullptr;
  std::unique_ptr<sqlite3, Closer> m_connection;  // before its statements, so that they go first
  std::vector<std::unique_ptr<sqlite3_stmt, Closer>> m_statements;  // prepared when first used
};

}  // namespace ondaro::host

#endif
