#include "SettingsDatabase.h"

#include <endian.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <new>
#include <system_error>
#include <thread>

#include "StateDirectory.h"

namespace ondaro::host {
namespace {

constexpr int LAYOUT = 2;
constexpr char LOG_SUFFIX[] = "-wal";
constexpr std::int64_t TRIM_BATCH = 256;  // the log is trimmed once in so many writes
constexpr std::int64_t READ_BATCH = 128;  // changes looked at before a follower's loop goes round
constexpr int PAGE_SIZE = 1024;           // most writes are of three pages with little in them
constexpr int LOG_LIMIT = 2 << 20;        // to which the engine's log is cut when it begins anew

// A value has no declared type, so that it keeps the one it is given. `item.seq` is the number of
// the key's last write, `item.boot` the boot that a key of `memory/` lives in; a row of another
// boot is not there. `item` has row numbers, since without them the engine reads the long values
// that it passes on its way to a key. `change.start` counts the bytes of all values before this
// one; one too long for the log is null. Its last row always stays, for the number and the bytes of
// the next.
constexpr char TABLES[] = R"(
CREATE TABLE IF NOT EXISTS item(key TEXT NOT NULL PRIMARY KEY, seq INTEGER NOT NULL, boot TEXT,
  value NOT NULL);
CREATE TABLE change(seq INTEGER PRIMARY KEY, key TEXT NOT NULL, start INTEGER NOT NULL,
  size INTEGER NOT NULL, value);
INSERT INTO change SELECT ifnull(max(seq),0),'',0,0,NULL FROM item;
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
  SIGN,  // with the session's number
  END_OF_SQL
};
constexpr std::array<const char*, END_OF_SQL> TEXTS = {
    "BEGIN IMMEDIATE",
    "COMMIT",
    "PRAGMA user_version",
    "SELECT id FROM boot",
    "SELECT value,seq FROM item WHERE key=?1 AND (boot IS NULL OR boot=?2)",
    "SELECT seq,start+size FROM change ORDER BY seq DESC LIMIT 1",
    "SELECT seq,key FROM change WHERE seq>?1 ORDER BY seq LIMIT ?2",
    "SELECT value FROM change WHERE seq=?1",
    "INSERT INTO change(seq,key,start,size,value) VALUES(?1,?2,?3,?4,?5)",
    "INSERT INTO item(key,seq,boot,value) VALUES(?1,?2,?3,?4) ON CONFLICT(key)"
    " DO UPDATE SET seq=excluded.seq,value=excluded.value",
    "SELECT seq,start FROM change ORDER BY seq",
    "DELETE FROM change WHERE seq<=?1",
    ""};

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
    const sqlite3_vfs* const engines = sqlite3_vfs_find(nullptr);
    if (engines == nullptr) {
      throw std::bad_alloc();
    }
    sqlite3_vfs own = *engines;
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

bool HasLog(const std::string& path) {
  struct stat status {};
  return stat((path + LOG_SUFFIX).c_str(), &status) == 0 && status.st_size > 0;
}

/// The engine's log and its index.
std::pair<ino_t, ino_t> LookBeside(const std::string& path) {
  struct stat log {};
  struct stat index {};
  stat((path + LOG_SUFFIX).c_str(), &log);
  stat((path + "-shm").c_str(), &index);
  return {log.st_ino, index.st_ino};
}

/// Of a number as the engine writes them.
std::uint32_t NumberAt(const unsigned char* bytes) {
  std::uint32_t number = 0;
  std::memcpy(&number, bytes, sizeof number);
  return be32toh(number);
}

}  // namespace

/// What the file's header tells by itself, past all that the engine remembers or has in its log.
struct SettingsDatabase::Header {
  static constexpr int CHANGES_AT = 24;
  static constexpr int SESSION_AT = 68;
  static constexpr int SIZE = 72;

  explicit Header(const unsigned char* bytes)
      : changes(NumberAt(bytes + CHANGES_AT)), session(NumberAt(bytes + SESSION_AT)) {}

  std::uint32_t changes;
  std::uint32_t session;
};

/// One run of a prepared statement. What is bound must outlive it.
class SettingsDatabase::Query {
 public:
  template <typename... Values>
  Query(SettingsDatabase& database, Sql sql, const Values&... values) : m_database(database) {
    auto& statement = database.m_statements[sql];
    if (statement == nullptr) {
      const char* const text = sql == SIGN ? database.m_signature.c_str() : TEXTS.at(sql);
      Check(sqlite3_prepare_v3(database.m_connection.get(), text, -1, SQLITE_PREPARE_PERSISTENT,
                               &m_statement, nullptr));
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

SettingsDatabase::SettingsDatabase(const std::string& path)
    : m_path(path), m_isAlone(!MayWrite(path) && !HasLog(path)), m_statements(END_OF_SQL) {
  Connect();
  if (!m_isAlone) {
    MakeTables();
    // Both are there by now, and nobody takes them along while this connection is open.
    m_beside = LookBeside(path);
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
    case SQLITE_CONSTRAINT:
    case SQLITE_ERROR:  // the statements are right, so the file or its tables are not
      kind = Kind::DAMAGED;
      break;
    default:
      // A file that may be written, and yet not by the engine, has a damaged header.
      kind = code == SQLITE_READONLY && MayWrite(m_path) ? Kind::DAMAGED : Kind::FAILED;
  }
  throw SettingsError(kind, m_path + ": " + text);
}

void SettingsDatabase::FailReplaced() const {
  throw SettingsError(SettingsError::Kind::REPLACED, m_path + " is another file than before");
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
  m_changes = ReadHeader().changes;
  if (!m_isAlone && !IsCurrent()) {
    FailReplaced();
  }
  // A page that is written before the commit would be the first in the log.
  Execute("PRAGMA mmap_size=0; PRAGMA temp_store=MEMORY; PRAGMA cache_spill=OFF");
  if (sqlite3_db_readonly(connection, "main") == 0) {
    Execute("PRAGMA page_size=" + std::to_string(PAGE_SIZE) +
            "; PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA journal_size_limit=" +
            std::to_string(LOG_LIMIT));
    // Until now others could end as the last and take their log along. It is opened at once, since
    // a process is to hold no more descriptors later.
    m_hasLog = false;
    m_changes = ReadHeader().changes;
    OpenLog();
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
  }
  write.Commit();
}

/// Called at the beginning of every write. A session lasts from the first write after the engine's
/// log was empty until the last connection is closed. Its number is in the header of the file
/// itself and, since each write begins with the page that holds it, in the first frame of the log:
/// by that a log is known to belong to the file beside it, also one left by processes that were
/// killed.
void SettingsDatabase::Sign() {
  if (!m_hasLog) {
    std::uint32_t session = 0;
    if (getrandom(&session, sizeof session, 0) != sizeof session) {
      throw SettingsError(SettingsError::Kind::FAILED, "no random number");
    }
    // Past the engine, which writes to the file only what its log has held. That is empty, and
    // nobody else may write.
    int code = m_file->pMethods->xWrite(m_file, &session, sizeof session, Header::SESSION_AT);
    if (code == SQLITE_OK) {
      code = m_file->pMethods->xSync(m_file, SQLITE_SYNC_NORMAL);
    }
    if (code != SQLITE_OK) {
      Fail(code);
    }
  }
  const std::uint32_t session = ReadHeader().session;
  if (session != m_signed) {
    m_signature = "PRAGMA application_id=" + std::to_string(static_cast<std::int32_t>(session));
    m_signed = session;
    m_statements[SIGN].reset();
  }
  Query(*this, SIGN).Step();
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

SettingsDatabase::Header SettingsDatabase::ReadHeader() const {
  unsigned char bytes[Header::SIZE] = {};
  const int code = m_file->pMethods->xRead(m_file, bytes, sizeof bytes, 0);
  if (code != SQLITE_OK && code != SQLITE_IOERR_SHORT_READ) {
    Fail(code);
  }
  return Header(bytes);
}

/// False while there is none.
bool SettingsDatabase::OpenLog() {
  if (m_beside == FilesBeside{}) {
    const std::string path = m_path + LOG_SUFFIX;
    m_log = std::make_unique<Descriptor>(OpenStateFile(path, O_RDONLY, IfMissing::FAIL));
    if (m_log->Number() < 0 && errno != ENOENT) {
      throw std::system_error(errno, std::generic_category(), path);
    }
  }
  return m_log->Number() >= 0;
}

bool SettingsDatabase::IsCurrent() {
  constexpr std::size_t FRAME_AT = 32;  // in the log: a page's number, and where the page begins
  constexpr std::size_t PAGE_AT = FRAME_AT + 24;
  int hasMoved = 0;
  sqlite3_file_control(m_connection.get(), "main", SQLITE_FCNTL_HAS_MOVED, &hasMoved);
  if (m_beside != FilesBeside{} && m_beside != LookBeside(m_path)) {
    return false;
  }
  // A session that begins just now is found the second time.
  for (int look = 0; look < 2 && hasMoved == 0; ++look) {
    unsigned char bytes[PAGE_AT + Header::SIZE] = {};
    const ssize_t size = OpenLog() ? pread(m_log->Number(), bytes, sizeof bytes, 0) : 0;
    if (size < 0) {
      throw std::system_error(errno, std::generic_category(), m_path + LOG_SUFFIX);
    }
    const bool hasFrame = size == sizeof bytes;
    const Header header = ReadHeader();
    // What another program wrote begins with another page, and is none of this one's business.
    if (hasFrame
            ? NumberAt(bytes + FRAME_AT) != 1 || Header(bytes + PAGE_AT).session == header.session
            : !m_hasLog && header.changes == m_changes) {
      m_hasLog = hasFrame;
      return true;
    }
  }
  return false;
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
  try {
    Write write(*this);  // its one page goes over what was left
    write.Commit();
  } catch (const std::exception&) {
    return false;
  }
  return true;
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
  try {
    if (!database.IsCurrent()) {
      database.FailReplaced();
    }
    database.Sign();
  } catch (...) {
    RollBack();
    throw;
  }
}

SettingsDatabase::Write::Write(SettingsDatabase& database, std::string_view key,
                               const SettingsValue& value)
    : Write(database.SetDurable(!LivesUntilReboot(key))) {
  Append(key, value);
}

SettingsDatabase::Write::~Write() {
  if (m_isOpen) {
    RollBack();
  }
}

void SettingsDatabase::Write::RollBack() noexcept {
  // Fails when the engine has rolled back by itself, which is as good.
  sqlite3_exec(m_database.m_connection.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void SettingsDatabase::Write::Append(std::string_view key, const SettingsValue& value) {
  constexpr int BLOCK_BITS = 20;  // the log is trimmed once in so many bytes, too
  SettingsDatabase& database = m_database;
  if (!database.m_isOfThisBoot) {
    database.BeginBoot();
  }
  std::int64_t number = 0;
  std::int64_t start = 0;
  {
    Query last(database, LAST);
    last.Step();
    number = last.Number(0) + 1;
    start = last.Number(1);
  }
  const std::string* const text = std::get_if<std::string>(&value);
  const auto size = static_cast<std::int64_t>(text != nullptr ? text->size() : sizeof(int));
  const bool isLogged = size < SETTINGS_LOG_BYTES;
  const std::int64_t end = start + (isLogged ? size : 0);
  Query(database, APPEND, number, key, start, end - start,
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
