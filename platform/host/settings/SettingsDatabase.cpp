#include "SettingsDatabase.h"

#include <endian.h>
#include <glib.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <limits>
#include <thread>

namespace ondaro::host {
namespace {

constexpr int LAYOUT = 2;
constexpr std::int64_t TRIM_BATCH = 256;  // the log is trimmed once in so many writes
constexpr std::int64_t READ_BATCH = 128;  // changes looked at before a follower's loop goes round
constexpr int LOG_LIMIT = 4 << 20;        // to which the engine's log is cut when it begins anew
constexpr sqlite3_int64 APPLICATION_ID = 68;  // its place in the file's header

// A value has no declared type, so that it keeps the one it is given. `item.seq` is the number of
// the key's last write, `item.boot` the boot that a key of `memory/` lives in; a row of another
// boot is not there. `item` has row numbers, since without them the engine reads the long values
// that it passes on its way to a key. `change.start` counts the bytes of all values before this
// one; one too long for the log is null. Its last row always stays, for the number, the bytes and
// the session (see BeginSession()) of the next.
constexpr char TABLES[] = R"(
CREATE TABLE IF NOT EXISTS item(key TEXT NOT NULL PRIMARY KEY, seq INTEGER NOT NULL, boot TEXT,
  value NOT NULL);
CREATE TABLE change(seq INTEGER PRIMARY KEY, key TEXT NOT NULL, session INTEGER NOT NULL,
  start INTEGER NOT NULL, size INTEGER NOT NULL, value);
INSERT INTO change SELECT ifnull(max(seq),0),'',0,0,0,NULL FROM item;
CREATE TABLE boot(id TEXT NOT NULL);
INSERT INTO boot VALUES('');
)";
constexpr char FROM_LAYOUT_1[] =
    "DROP TABLE change; DROP TABLE log_floor; ALTER TABLE item ADD COLUMN boot TEXT;";

enum Sql : std::size_t {
  BEGIN,
  COMMIT,
  VERSION,
  BOOT,
  GET,
  LAST,
  SCAN,
  CHANGE,
  APPEND,
  PUT,
  OLDEST,
  TRIM,
  END_OF_SQL
};
constexpr std::array<const char*, END_OF_SQL> TEXTS = {
    "BEGIN IMMEDIATE",
    "COMMIT",
    "PRAGMA user_version",
    "SELECT id FROM boot",
    "SELECT value,seq FROM item WHERE key=?1 AND (boot IS NULL OR boot=?2)",
    "SELECT seq,session,start+size FROM change ORDER BY seq DESC LIMIT 1",
    "SELECT seq,key FROM change WHERE seq>?1 ORDER BY seq LIMIT ?2",
    "SELECT value FROM change WHERE seq=?1",
    "INSERT INTO change(seq,key,session,start,size,value) VALUES(?1,?2,?3,?4,?5,?6)",
    "INSERT INTO item(key,seq,boot,value) VALUES(?1,?2,?3,?4) ON CONFLICT(key)"
    " DO UPDATE SET seq=excluded.seq,value=excluded.value",
    "SELECT seq,start FROM change ORDER BY seq",
    "DELETE FROM change WHERE seq<=?1"};

std::string_view BootId() {
  static const std::string& id = *new std::string([] {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string line;
    std::getline(file, line);
    return line;
  }());
  return id;
}

bool LivesUntilReboot(std::string_view key) { return key.substr(0, 7) == "memory/"; }

/// No value for what only a foreign hand can have written.
std::optional<SettingsValue> ValueOf(sqlite3_stmt* statement, int column) {
  switch (sqlite3_column_type(statement, column)) {
    case SQLITE_TEXT: {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
      return std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
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

int OnBusy(void* /*unused*/, int /*count*/) noexcept {
  // Short even pauses: with growing ones a writer starves beside one that writes in a row.
  constexpr std::chrono::microseconds PAUSE{200};
  if (SettingsDeadline::HasPassed()) {
    return 0;
  }
  std::this_thread::sleep_for(PAUSE);
  return 1;
}

/// The engine's own, but for its pauses: where it waits by itself, for ten seconds, it hurries once
/// the deadline has passed.
const char* Vfs() {
  static sqlite3_vfs vfs = [] {
    sqlite3_vfs own = *sqlite3_vfs_find(nullptr);
    own.zName = "ondaro-host";
    own.xSleep = [](sqlite3_vfs* /*self*/, int microseconds) {
      if (!SettingsDeadline::HasPassed()) {
        std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
      }
      return microseconds;
    };
    return own;
  }();
  static const int registered = sqlite3_vfs_register(&vfs, 0);
  return registered == SQLITE_OK ? vfs.zName : nullptr;
}

bool MayWrite(const std::string& path) {
  const std::string directory = path.substr(0, path.rfind('/'));
  return euidaccess(directory.c_str(), W_OK | X_OK) == 0 && euidaccess(path.c_str(), W_OK) == 0;
}

}  // namespace

/// One run of a prepared statement. What is bound must outlive it.
class SettingsDatabase::Query {
 public:
  template <typename... Values>
  Query(SettingsDatabase& database, Sql sql, const Values&... values) : m_database(database) {
    auto& statement = database.m_statements[sql];
    if (statement == nullptr) {
      Check(sqlite3_prepare_v3(database.m_connection.get(), TEXTS.at(sql), -1,
                               SQLITE_PREPARE_PERSISTENT, &m_statement, nullptr));
      statement.reset(m_statement);
    }
    m_statement = statement.get();
    int index = 0;
    (Check(Bind(++index, values)), ...);
  }
  ~Query() { sqlite3_reset(m_statement); }
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

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
  int Bind(int index, std::int64_t number) {
    return sqlite3_bind_int64(m_statement, index, number);
  }
  int Bind(int index, std::string_view text) {
    return sqlite3_bind_text64(m_statement, index, text.data(), text.size(), SQLITE_STATIC,
                               SQLITE_UTF8);
  }
  int Bind(int index, const SettingsValue& value) {
    const std::string* text = std::get_if<std::string>(&value);
    return text != nullptr ? Bind(index, std::string_view(*text))
                           : Bind(index, std::int64_t{std::get<int>(value)});
  }
  int Bind(int index, const std::optional<SettingsValue>& value) {
    return value ? Bind(index, *value) : sqlite3_bind_null(m_statement, index);
  }
  void Check(int code) const {
    if (code != SQLITE_OK) {
      m_database.Fail(code);
    }
  }

  SettingsDatabase& m_database;
  sqlite3_stmt* m_statement = nullptr;
};

SettingsDatabase::SettingsDatabase(const std::string& path, Access access)
    : m_path(path),
      m_isAlone(access == Access::ALONE || (!MayWrite(path) && !HasLog())),
      m_statements(END_OF_SQL) {
  Connect();
  if (!m_isAlone) {
    MakeTables();
  }
}

void SettingsDatabase::Fail(int code) const {
  using Kind = SettingsError::Kind;
  const char* text =
      m_connection != nullptr ? sqlite3_errmsg(m_connection.get()) : sqlite3_errstr(code);
  Kind kind = Kind::FAILED;
  switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_PROTOCOL:  // it has tried often enough
      kind = Kind::BUSY;
      break;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_ERROR:  // the statements are right, so the file or its tables are not
      kind = Kind::DAMAGED;
      break;
    default:
      // A file that may be written, and yet not by the engine, has a damaged header.
      kind = code == SQLITE_READONLY && MayWrite(m_path) ? Kind::DAMAGED : Kind::FAILED;
  }
  throw SettingsError(kind, m_path + ": " + text);
}

void SettingsDatabase::Connect() {
  std::string name = m_path;
  int flags = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_READWRITE;
  if (m_isAlone) {
    gchar* const uri = g_filename_to_uri(m_path.c_str(), nullptr, nullptr);
    name = std::string(uri) + "?immutable=1";
    g_free(uri);
    flags = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_URI | SQLITE_OPEN_READONLY;
  }
  sqlite3* connection = nullptr;
  const int code = sqlite3_open_v2(name.c_str(), &connection, flags, Vfs());
  m_connection.reset(connection);
  if (code != SQLITE_OK) {
    Fail(code);
  }
  sqlite3_extended_result_codes(connection, 1);
  sqlite3_busy_handler(connection, &OnBusy, nullptr);
  // A connection is closed before each fork, too, which must stay cheap.
  sqlite3_db_config(connection, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  sqlite3_file_control(connection, "main", SQLITE_FCNTL_FILE_POINTER, &m_file);
  Execute("PRAGMA mmap_size=0; PRAGMA temp_store=MEMORY");
  if (sqlite3_db_readonly(connection, "main") == 0) {
    Execute("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA journal_size_limit=" +
            std::to_string(LOG_LIMIT));
  }
}

void SettingsDatabase::MakeTables() {
  const auto layout = [this] {
    Query version(*this, VERSION);
    version.Step();
    return version.Number(0);
  };
  if (layout() == LAYOUT) {
    return;
  }
  Write write(*this);
  if (const std::int64_t found = layout(); found != LAYOUT) {
    Execute(found == 1 ? FROM_LAYOUT_1 : "");
    Execute(TABLES);
    Execute("PRAGMA user_version=" + std::to_string(LAYOUT));
    BeginSession();
  }
  write.Commit();
}

/// A session lasts from the first write after the engine's log was empty until a last connection is
/// closed. Its number is in the header of the file itself and, with every write, in the engine's
/// log: by that a log left by processes that were killed is known to belong to the file beside it,
/// and a file put back in the place of another to have nothing to do with the log.
void SettingsDatabase::BeginSession() {
  std::int32_t session = 0;
  if (getrandom(&session, sizeof session, 0) != sizeof session) {
    throw SettingsError(SettingsError::Kind::FAILED, "no random number");
  }
  const std::uint32_t bytes = htobe32(static_cast<std::uint32_t>(session));
  // Past the engine, which writes to the file only what its log has held. That is empty, or has
  // just been given this page, and nobody else may write.
  int code = m_file->pMethods->xWrite(m_file, &bytes, sizeof bytes, APPLICATION_ID);
  if (code == SQLITE_OK) {
    code = m_file->pMethods->xSync(m_file, SQLITE_SYNC_NORMAL);
  }
  if (code != SQLITE_OK) {
    Fail(code);
  }
  m_session = session;
  const std::string number = std::to_string(session);
  Execute("PRAGMA application_id=" + number + "; UPDATE change SET session=" + number +
          " WHERE seq=(SELECT max(seq) FROM change)");
  m_hasLog = true;
}

/// The keys of other boots go.
void SettingsDatabase::BeginBoot() {
  const std::string boot(BootId());
  {
    Query known(*this, BOOT);
    m_isOfThisBoot = known.Step() && known.Text(0) == boot;
  }
  if (!m_isOfThisBoot) {
    Execute("DELETE FROM item WHERE boot<>'" + boot + "'; UPDATE boot SET id='" + boot + "'");
    m_isOfThisBoot = true;
  }
}

std::int64_t SettingsDatabase::FileSession() const {
  std::uint32_t bytes = 0;
  const int code = m_file->pMethods->xRead(m_file, &bytes, sizeof bytes, APPLICATION_ID);
  if (code != SQLITE_OK && code != SQLITE_IOERR_SHORT_READ) {
    Fail(code);
  }
  return static_cast<std::int32_t>(be32toh(bytes));
}

std::int64_t SettingsDatabase::LogSession() {
  Query last(*this, LAST);
  last.Step();
  return last.Number(1);
}

bool SettingsDatabase::HasLog() {
  struct stat status {};
  m_hasLog = m_hasLog || (stat((m_path + "-wal").c_str(), &status) == 0 && status.st_size > 0);
  return m_hasLog;
}

bool SettingsDatabase::IsPutBack() {
  // A session that begins just now is found the second time.
  for (int look = 0; look < 2; ++look) {
    const std::int64_t inFile = FileSession();
    const std::int64_t inLog = inFile != m_session ? LogSession() : 0;
    // A session that was begun in vain is in the header only.
    if (inFile == m_session || inFile == inLog ||
        SettingsDatabase(m_path, Access::ALONE).LogSession() == inLog) {
      m_session = inFile;
      return false;
    }
  }
  return true;
}

bool SettingsDatabase::IsAtPath() const noexcept {
  int hasMoved = 0;
  sqlite3_file_control(m_connection.get(), "main", SQLITE_FCNTL_HAS_MOVED, &hasMoved);
  return hasMoved == 0;
}

void SettingsDatabase::FoldWhenClosed() noexcept {
  sqlite3_db_config(m_connection.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
}

void SettingsDatabase::Execute(const std::string& sql) {
  const int code = sqlite3_exec(m_connection.get(), sql.c_str(), nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) {
    Fail(code);
  }
}

std::optional<SettingsValue> SettingsDatabase::Get(std::string_view key) {
  Query get(*this, GET, key, BootId());
  return get.Step() ? get.Value(0) : std::nullopt;
}

std::int64_t SettingsDatabase::LastNumber() {
  Query last(*this, LAST);
  last.Step();
  return last.Number(0);
}

std::optional<SettingsDatabase::Batch> SettingsDatabase::ChangesAfter(std::int64_t position,
                                                                      const Wanted& isWanted) {
  Query newest(*this, LAST);  // not done before the rest is, which so sees the same
  newest.Step();
  const std::int64_t last = newest.Number(0);
  Batch batch{{}, position, false};
  if (last == position) {
    return batch;
  }
  Query scan(*this, SCAN, position, READ_BATCH);
  while (batch.upTo != last && scan.Step()) {
    const std::int64_t number = scan.Number(0);
    if (number <= batch.upTo) {
      // Whoever read on from here would do so for ever.
      throw SettingsError(SettingsError::Kind::DAMAGED, m_path + ": its log is out of order");
    }
    if (number != batch.upTo + 1) {
      break;
    }
    if (std::string key = scan.Text(1); isWanted(key)) {
      Query change(*this, CHANGE, number);
      change.Step();
      std::optional<SettingsValue> value = change.Value(0);
      if (!value) {
        break;
      }
      batch.changes.push_back({number, std::move(key), std::move(*value)});
    }
    batch.upTo = number;
  }
  batch.hasMore = batch.upTo != last;
  return batch.hasMore && batch.upTo == position ? std::nullopt : std::optional(std::move(batch));
}

SettingsDatabase::Batch SettingsDatabase::LastChanges(std::int64_t position,
                                                      const std::vector<std::string>& keys) {
  Query newest(*this, LAST);
  newest.Step();
  Batch batch{{}, newest.Number(0), false};
  position = position > batch.upTo ? -1 : position;  // of other content
  for (const std::string& key : keys) {
    Query get(*this, GET, std::string_view(key), BootId());
    std::optional<SettingsValue> value = get.Step() ? get.Value(0) : std::nullopt;
    if (value && get.Number(1) > position) {
      batch.changes.push_back({get.Number(1), key, std::move(*value)});
    }
  }
  std::sort(batch.changes.begin(), batch.changes.end(),
            [](const auto& one, const auto& other) { return one.number < other.number; });
  return batch;
}

void SettingsDatabase::TrimLog(std::int64_t last, std::int64_t end) {
  std::int64_t upTo = 0;
  {
    Query oldest(*this, OLDEST);
    while (oldest.Step() && oldest.Number(0) < last &&
           (oldest.Number(0) <= last - SETTINGS_LOG_CHANGES ||
            end - oldest.Number(1) > SETTINGS_LOG_BYTES)) {
      upTo = oldest.Number(0);
    }
  }
  Query(*this, TRIM, upTo).Step();
}

bool SettingsDatabase::Revoke() noexcept {
  if (!m_hasFailedCommit) {
    return true;
  }
  // Pages that changed to and fro are written all the same, over what was left.
  const int code = sqlite3_exec(
      m_connection.get(),
      "BEGIN IMMEDIATE; UPDATE boot SET id=id||'-'; UPDATE boot SET id=rtrim(id,'-'); COMMIT",
      nullptr, nullptr, nullptr);
  if (sqlite3_get_autocommit(m_connection.get()) == 0) {
    sqlite3_exec(m_connection.get(), "ROLLBACK", nullptr, nullptr, nullptr);
  }
  m_hasFailedCommit = code != SQLITE_OK;
  return !m_hasFailedCommit;
}

SettingsDatabase& SettingsDatabase::SetDurable(bool isDurable) {
  if (isDurable != m_isDurable) {
    // Never OFF: the engine syncs before its log goes into the file.
    Execute(isDurable ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
    m_isDurable = isDurable;
  }
  return *this;
}

SettingsDatabase::Write::Write(SettingsDatabase& database) : m_database(database) {
  Query(m_database, BEGIN).Step();
}

SettingsDatabase::Write::Write(SettingsDatabase& database, std::string_view key,
                               const SettingsValue& value)
    : Write(database.SetDurable(!LivesUntilReboot(key))) {
  Append(key, value);
}

SettingsDatabase::Write::~Write() {
  if (m_isOpen) {
    // Fails when the engine has rolled back by itself, which is as good.
    sqlite3_exec(m_database.m_connection.get(), "ROLLBACK", nullptr, nullptr, nullptr);
  }
}

void SettingsDatabase::Write::Append(std::string_view key, const SettingsValue& value) {
  constexpr int BLOCK_BITS = 20;  // the log is trimmed once in so many bytes, too
  SettingsDatabase& database = m_database;
  if (database.IsPutBack()) {
    throw SettingsError(SettingsError::Kind::REPLACED, database.m_path + " was put back");
  }
  if (!database.HasLog()) {
    database.BeginSession();
  }
  if (!database.m_isOfThisBoot) {
    database.BeginBoot();
  }
  std::int64_t number = 0;
  std::int64_t start = 0;
  {
    Query last(database, LAST);
    last.Step();
    number = last.Number(0) + 1;
    start = last.Number(2);
  }
  const std::string* const text = std::get_if<std::string>(&value);
  const auto size = static_cast<std::int64_t>(text != nullptr ? text->size() : sizeof(int));
  const bool isLogged = size < SETTINGS_LOG_BYTES;
  const std::int64_t end = start + (isLogged ? size : 0);
  Query(database, APPEND, number, key, database.m_session, start, end - start,
        isLogged ? std::optional(value) : std::nullopt)
      .Step();
  const auto boot =
      LivesUntilReboot(key) ? std::optional<SettingsValue>(std::string(BootId())) : std::nullopt;
  Query(database, PUT, key, number, boot, value).Step();
  if (number % TRIM_BATCH == 0 || start >> BLOCK_BITS != end >> BLOCK_BITS) {
    database.TrimLog(number, end);
  }
}

void SettingsDatabase::Write::Commit() {
  m_database.m_hasFailedCommit = true;
  Query(m_database, COMMIT).Step();
  m_database.m_hasFailedCommit = false;
  m_isOpen = false;
}

}  // namespace ondaro::host
