#include "SettingsDatabase.h"

#include <unistd.h>

#include <algorithm>
#include <limits>
#include <thread>

#include "SettingsError.h"
#include "SettingsLimits.h"

namespace ondaro::host {
namespace {

constexpr int LAYOUT = 1;

// A value has no declared type, so that it keeps the one it is given. `item.seq` is the number of
// the key's last write, by which one that fell behind finds out what it has missed. `item` has row
// numbers, since without them the engine reads the long values that it passes on its way to a key.
constexpr char TABLES[] = R"(
CREATE TABLE item(key TEXT NOT NULL PRIMARY KEY, seq INTEGER NOT NULL, value NOT NULL);
CREATE TABLE change(seq INTEGER PRIMARY KEY, key TEXT NOT NULL, value NOT NULL);
CREATE TABLE log_floor(seq INTEGER NOT NULL);
)";

/// No value for what only a foreign hand can have written.
std::optional<SettingsValue> ValueOf(sqlite3_stmt* statement, int column) {
  switch (sqlite3_column_type(statement, column)) {
    case SQLITE_TEXT: {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
      const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
      return std::string(text, size);
    }
    case SQLITE_INTEGER: {
      const sqlite3_int64 number = sqlite3_column_int64(statement, column);
      if (number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max()) {
        return static_cast<int>(number);
      }
      return std::nullopt;
    }
    default:
      return std::nullopt;
  }
}

SettingsError::Kind KindOf(int code) {
  switch (code & 0xff) {
    case SQLITE_BUSY:
      return SettingsError::Kind::BUSY;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_ERROR:  // the statements are right, so the file or its tables are not
      return SettingsError::Kind::DAMAGED;
    default:
      return SettingsError::Kind::FAILED;
  }
}

}  // namespace

/// One run of a prepared statement. What is bound must outlive it.
class SettingsDatabase::Query {
 public:
  Query(const SettingsDatabase& database, const Statement& statement)
      : m_database(database), m_statement(statement.get()) {}
  ~Query() { sqlite3_reset(m_statement); }
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  Query& Bind(int index, std::int64_t number) {
    return Check(sqlite3_bind_int64(m_statement, index, number));
  }
  Query& Bind(int index, std::string_view text) {
    return Check(sqlite3_bind_text64(m_statement, index, text.data(), text.size(), SQLITE_STATIC,
                                     SQLITE_UTF8));
  }
  Query& BindValue(int index, const SettingsValue& value) {
    const std::string* text = std::get_if<std::string>(&value);
    return text != nullptr ? Bind(index, std::string_view(*text))
                           : Bind(index, std::int64_t{std::get<int>(value)});
  }

  /// True with a row.
  bool Step() {
    const int code = sqlite3_step(m_statement);
    if (code != SQLITE_ROW && code != SQLITE_DONE) {
      m_database.Fail(code);
    }
    return code == SQLITE_ROW;
  }

  std::int64_t Number(int column) const { return sqlite3_column_int64(m_statement, column); }
  std::optional<SettingsValue> Value(int column) const { return ValueOf(m_statement, column); }
  std::string Text(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(m_statement, column));
    return text != nullptr ? text : "";
  }

 private:
  Query& Check(int code) {
    if (code != SQLITE_OK) {
      m_database.Fail(code);
    }
    return *this;
  }

  const SettingsDatabase& m_database;
  sqlite3_stmt* m_statement;
};

SettingsDatabase::SettingsDatabase(const std::string& path, Durability durability,
                                   std::int64_t floor, std::function<void()> onWait)
    : m_path(path), m_onWait(std::move(onWait)) {
  sqlite3* connection = nullptr;
  const int code =
      sqlite3_open_v2(path.c_str(), &connection,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  m_connection.reset(connection);
  if (code != SQLITE_OK) {
    Fail(code);
  }
  Configure(durability);
  MakeTables(floor);
  m_get = Prepare("SELECT value FROM item WHERE key=?1");
  m_getWithSequence = Prepare("SELECT value,seq FROM item WHERE key=?1");
  m_lastSequence =
      Prepare("SELECT max((SELECT seq FROM log_floor),ifnull(max(seq),0)) FROM change");
  m_floor = Prepare("SELECT seq FROM log_floor");
  m_changes = Prepare("SELECT seq,key,value FROM change WHERE seq>?1 ORDER BY seq LIMIT ?2");
  m_begin = Prepare("BEGIN");
  m_beginWrite = Prepare("BEGIN IMMEDIATE");
  m_append = Prepare(
      "INSERT INTO change(seq,key,value)"
      " VALUES(1+max(?1,(SELECT ifnull(max(seq),0) FROM change)),?2,?3)");
  m_put = Prepare(
      "INSERT INTO item(key,value,seq) VALUES(?1,?2,?3)"
      " ON CONFLICT(key) DO UPDATE SET value=excluded.value,seq=excluded.seq");
  m_trim = Prepare("DELETE FROM change WHERE seq<=?1");
  m_setFloor = Prepare("UPDATE log_floor SET seq=?1");
  m_commit = Prepare("COMMIT");
  m_rollback = Prepare("ROLLBACK");
}

void SettingsDatabase::Fail(int code) const {
  const char* text =
      m_connection != nullptr ? sqlite3_errmsg(m_connection.get()) : sqlite3_errstr(code);
  // A file that may be written, and yet not by the engine, has a damaged header.
  const bool isOddlyReadOnly = code == SQLITE_READONLY && access(m_path.c_str(), W_OK) == 0;
  throw SettingsError(isOddlyReadOnly ? SettingsError::Kind::DAMAGED : KindOf(code),
                      m_path + ": " + text);
}

int SettingsDatabase::OnBusy(void* self, int count) noexcept {
  // Short even pauses: with growing ones a writer starves beside one that writes in a row.
  constexpr std::chrono::microseconds PAUSE{200};
  auto& database = *static_cast<SettingsDatabase*>(self);
  const auto now = std::chrono::steady_clock::now();
  if (count == 0) {
    database.m_busyDeadline = now + SETTINGS_LONGEST_WAIT;
  }
  if (now > database.m_busyDeadline) {
    return 0;
  }
  database.m_onWait();
  std::this_thread::sleep_for(PAUSE);
  return 1;
}

void SettingsDatabase::Configure(Durability durability) {
  sqlite3* connection = m_connection.get();
  sqlite3_extended_result_codes(connection, 1);
  sqlite3_busy_handler(connection, &OnBusy, this);
  // A connection is closed before each fork, which must stay cheap; the files stay for readers that
  // may not make them.
  int keep = 1;
  sqlite3_file_control(connection, nullptr, SQLITE_FCNTL_PERSIST_WAL, &keep);
  sqlite3_db_config(connection, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  if (sqlite3_db_readonly(connection, "main") == 0) {
    Execute("PRAGMA journal_mode=WAL");
  }
  Execute(durability == Durability::SYNCED ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=OFF");
}

void SettingsDatabase::MakeTables(std::int64_t floor) {
  const Statement layout = Prepare("PRAGMA user_version");
  if (Query query(*this, layout); query.Step() && query.Number(0) == LAYOUT) {
    return;
  }
  Execute("BEGIN IMMEDIATE");
  try {
    Execute(TABLES);
    Execute("INSERT INTO log_floor VALUES(" + std::to_string(floor) + ")");
    Execute("PRAGMA user_version=" + std::to_string(LAYOUT));
    Execute("COMMIT");
  } catch (const SettingsError&) {
    sqlite3_exec(m_connection.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
}

void SettingsDatabase::Execute(const std::string& sql) {
  const int code = sqlite3_exec(m_connection.get(), sql.c_str(), nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) {
    Fail(code);
  }
}

SettingsDatabase::Statement SettingsDatabase::Prepare(const char* sql) {
  sqlite3_stmt* statement = nullptr;
  const int code = sqlite3_prepare_v3(m_connection.get(), sql, -1, SQLITE_PREPARE_PERSISTENT,
                                      &statement, nullptr);
  if (code != SQLITE_OK) {
    Fail(code);
  }
  return Statement(statement);
}

void SettingsDatabase::RunPlain(const Statement& statement) { Query(*this, statement).Step(); }

std::optional<SettingsValue> SettingsDatabase::Get(std::string_view key) {
  Query query(*this, m_get);
  return query.Bind(1, key).Step() ? query.Value(0) : std::nullopt;
}

std::int64_t SettingsDatabase::LastSequence() {
  Query query(*this, m_lastSequence);
  query.Step();
  return query.Number(0);
}

std::vector<SettingsChange> SettingsDatabase::ChangesAfter(std::int64_t position) {
  std::vector<SettingsChange> changes;
  CollectChanges(position, changes);
  return changes;
}

std::vector<SettingsChange> SettingsDatabase::ChangesAfterGap(
    std::int64_t position, const std::vector<std::string>& keys) {
  std::vector<SettingsChange> changes;
  RunPlain(m_begin);
  try {
    std::int64_t floor = 0;
    if (Query query(*this, m_floor); query.Step()) {
      floor = query.Number(0);
    }
    if (position < floor) {
      CollectLastValues(position, floor, keys, changes);
    }
    CollectChanges(std::max(position, floor), changes);
    RunPlain(m_commit);
  } catch (...) {
    sqlite3_step(m_rollback.get());
    sqlite3_reset(m_rollback.get());
    throw;
  }
  return changes;
}

void SettingsDatabase::CollectChanges(std::int64_t position, std::vector<SettingsChange>& changes) {
  Query query(*this, m_changes);
  query.Bind(1, position).Bind(2, std::int64_t{SETTINGS_READ_BATCH});
  while (query.Step()) {
    const std::int64_t sequence = query.Number(0);
    if (sequence <= position) {
      // Whoever read on from here would do so for ever.
      throw SettingsError(SettingsError::Kind::DAMAGED, m_path + ": its log is out of order");
    }
    position = sequence;
    if (std::optional<SettingsValue> value = query.Value(2)) {
      changes.push_back({sequence, query.Text(1), std::move(*value)});
    }
  }
}

void SettingsDatabase::CollectLastValues(std::int64_t position, std::int64_t floor,
                                         const std::vector<std::string>& keys,
                                         std::vector<SettingsChange>& changes) {
  for (const std::string& key : keys) {
    Query query(*this, m_getWithSequence);
    if (!query.Bind(1, key).Step()) {
      continue;
    }
    const std::int64_t sequence = query.Number(1);
    std::optional<SettingsValue> value = query.Value(0);
    if (value && sequence > position && sequence <= floor) {
      changes.push_back({sequence, key, std::move(*value)});
    }
  }
  std::sort(changes.begin(), changes.end(),
            [](const auto& one, const auto& other) { return one.sequence < other.sequence; });
}

bool SettingsDatabase::Revoke() noexcept {
  if (!m_hasFailedCommit) {
    return true;
  }
  // Pages that changed to and fro are written all the same, over what was left.
  const int code = sqlite3_exec(
      m_connection.get(),
      "BEGIN IMMEDIATE; UPDATE log_floor SET seq=seq+1; UPDATE log_floor SET seq=seq-1; COMMIT",
      nullptr, nullptr, nullptr);
  if (sqlite3_get_autocommit(m_connection.get()) == 0) {
    sqlite3_step(m_rollback.get());
    sqlite3_reset(m_rollback.get());
  }
  m_hasFailedCommit = code != SQLITE_OK;
  return !m_hasFailedCommit;
}

SettingsDatabase::Write::Write(SettingsDatabase& database) : m_database(database) {
  m_database.RunPlain(m_database.m_beginWrite);
}

SettingsDatabase::Write::~Write() {
  if (m_open) {
    // Fails when the engine has rolled back by itself, which is as good.
    sqlite3_step(m_database.m_rollback.get());
    sqlite3_reset(m_database.m_rollback.get());
  }
}

std::int64_t SettingsDatabase::Write::Append(std::string_view key, const SettingsValue& value,
                                             std::int64_t last) {
  Query(m_database, m_database.m_append).Bind(1, last).Bind(2, key).BindValue(3, value).Step();
  const std::int64_t sequence = sqlite3_last_insert_rowid(m_database.m_connection.get());
  Query(m_database, m_database.m_put).Bind(1, key).BindValue(2, value).Bind(3, sequence).Step();
  return sequence;
}

void SettingsDatabase::Write::TrimLog(std::int64_t upTo) {
  Query(m_database, m_database.m_trim).Bind(1, upTo).Step();
  Query(m_database, m_database.m_setFloor).Bind(1, upTo).Step();
}

void SettingsDatabase::Write::Commit() {
  m_database.m_hasFailedCommit = true;
  m_database.RunPlain(m_database.m_commit);
  m_database.m_hasFailedCommit = false;
  m_open = false;
}

}  // namespace ondaro::host
