// The host backend's settings store, each operation beside what it is made of, which its label
// names. The engine by hand has the store's own tables, journal mode, synchronous setting and shape
// of transaction, but neither log nor bell.

#include <benchmark/benchmark.h>
#include <glib-unix.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Compare.h"
#include "platform/SettingsStore.h"

namespace {

namespace fs = std::filesystem;

constexpr int READ_BLOCK = 10'000;
constexpr int WRITE_BLOCK = 512;
constexpr int SAMPLES_A_BLOCK = 50;
constexpr char VALUE[] = "running";

/// The areas of the store: `memory/` is not synced, the rest is.
struct Area {
  std::string key;
  std::string database;
  const char* synchronous;
};

const Area& AreaOf(const benchmark::State& state) {
  static const std::array<Area, 2> areas = {
      Area{"memory/menu/network/ondaro_status", "memory.db", "OFF"},
      Area{"db/menu/network/ondaro_status", "settings.db", "FULL"}};
  return areas.at(static_cast<std::size_t>(state.range(0)));
}

/// The store's directories, gone with the process that made them: as on a set, what lives until
/// reboot is kept in memory.
class Directory {
 public:
  Directory()
      : m_paths{Make(fs::temp_directory_path(), "XDG_STATE_HOME"),
                Make(fs::is_directory("/dev/shm") ? "/dev/shm" : fs::temp_directory_path(),
                     "XDG_RUNTIME_DIR")} {
    unsetenv("ONDARO_HOST_STATE");
  }
  ~Directory() {
    std::error_code ignored;
    for (const fs::path& path : m_paths) {
      fs::remove_all(path, ignored);
    }
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  fs::path Find(const std::string& name) const {
    for (const fs::path& path : m_paths) {
      for (const auto& entry : fs::recursive_directory_iterator(path)) {
        if (entry.path().filename() == name) {
          return entry.path();
        }
      }
    }
    throw std::runtime_error("no " + name);
  }

 private:
  static fs::path Make(const fs::path& base, const char* variable) {
    std::string path = (base / "ondaro-bench-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) {
      throw std::runtime_error("no temporary directory");
    }
    setenv(variable, path.c_str(), 1);
    return path;
  }

  const std::array<fs::path, 2> m_paths;
};

const Directory& TheDirectory() {
  static const Directory directory;
  return directory;
}

/// SQLite by hand, with the store's own tables and settings.
class PlainDatabase {
 public:
  explicit PlainDatabase(const Area& area)
      : m_path(TheDirectory().Find(area.database).replace_extension(".plain")), m_area(area) {
    Open();
    const std::string store = TheDirectory().Find(area.database);
    Execute("ATTACH '" + store + "' AS store");
    const std::vector<std::string> tables =
        Texts("SELECT sql FROM store.sqlite_master WHERE type='table'");
    Execute("DETACH store");
    for (const std::string& table : tables) {
      Execute(
          std::string(table).replace(0, std::strlen("CREATE TABLE"), "CREATE TABLE IF NOT EXISTS"));
    }
    Prepare();
  }
  ~PlainDatabase() { Close(); }
  PlainDatabase(const PlainDatabase&) = delete;
  PlainDatabase& operator=(const PlainDatabase&) = delete;

  /// A connection is not to be carried over a fork.
  void Close() {
    sqlite3_finalize(std::exchange(m_get, nullptr));
    sqlite3_finalize(std::exchange(m_put, nullptr));
    sqlite3_finalize(std::exchange(m_begin, nullptr));
    sqlite3_finalize(std::exchange(m_commit, nullptr));
    sqlite3_close(std::exchange(m_connection, nullptr));
  }
  void Reopen() {
    Open();
    Prepare();
  }

  char* Get(const std::string& key) {
    Bind(m_get, 1, key);
    char* copy = nullptr;
    if (sqlite3_step(m_get) == SQLITE_ROW) {
      copy = strdup(reinterpret_cast<const char*>(sqlite3_column_text(m_get, 0)));
    }
    sqlite3_reset(m_get);
    return copy;
  }

  void Put(const std::string& key, const std::string& value) {
    Bind(m_put, 1, key);
    Bind(m_put, 2, value);
    sqlite3_bind_int64(m_put, 3, ++m_sequence);
    for (sqlite3_stmt* statement : {m_begin, m_put, m_commit}) {
      if (sqlite3_step(statement) != SQLITE_DONE) {
        throw std::runtime_error(sqlite3_errmsg(m_connection));
      }
      sqlite3_reset(statement);
    }
  }

 private:
  void Open() {
    if (sqlite3_open_v2(m_path.c_str(), &m_connection,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
      throw std::runtime_error("no database");
    }
    // Else the engine's log would go when the connection is closed, and grow again.
    int keep = 1;
    sqlite3_file_control(m_connection, nullptr, SQLITE_FCNTL_PERSIST_WAL, &keep);
    sqlite3_db_config(m_connection, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    Execute("PRAGMA journal_mode=WAL");
    Execute(std::string("PRAGMA synchronous=") + m_area.synchronous);
  }
  void Prepare() {
    constexpr char GET[] = "SELECT value FROM item WHERE key=?1";
    constexpr char PUT[] =
        "INSERT INTO item(key,value,seq) VALUES(?1,?2,?3)"
        " ON CONFLICT(key) DO UPDATE SET value=excluded.value,seq=excluded.seq";
    const std::pair<const char*, sqlite3_stmt**> statements[] = {
        {GET, &m_get}, {PUT, &m_put}, {"BEGIN IMMEDIATE", &m_begin}, {"COMMIT", &m_commit}};
    for (const auto& [sql, statement] : statements) {
      if (sqlite3_prepare_v3(m_connection, sql, -1, SQLITE_PREPARE_PERSISTENT, statement,
                             nullptr) != SQLITE_OK) {
        throw std::runtime_error(sqlite3_errmsg(m_connection));
      }
    }
  }
  void Execute(const std::string& sql) { Texts(sql); }
  std::vector<std::string> Texts(const std::string& sql) {
    std::vector<std::string> texts;
    const auto collect = [](void* to, int, char** values, char**) {
      static_cast<std::vector<std::string>*>(to)->emplace_back(values[0]);
      return 0;
    };
    if (sqlite3_exec(m_connection, sql.c_str(), collect, &texts, nullptr) != SQLITE_OK) {
      throw std::runtime_error(sqlite3_errmsg(m_connection));
    }
    return texts;
  }
  static void Bind(sqlite3_stmt* statement, int index, const std::string& text) {
    sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
  }

  const fs::path m_path;
  const Area& m_area;
  sqlite3* m_connection = nullptr;
  sqlite3_stmt* m_get = nullptr;
  sqlite3_stmt* m_put = nullptr;
  sqlite3_stmt* m_begin = nullptr;
  sqlite3_stmt* m_commit = nullptr;
  sqlite3_int64 m_sequence = 0;
};

using Nanoseconds = std::int64_t;

Nanoseconds Now() {
  return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// A forked process at the other end of a socket pair; it ends with this object.
class Peer {
 public:
  explicit Peer(const std::function<void(int)>& work) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
      throw std::runtime_error("no socket pair");
    }
    m_pid = fork();
    if (m_pid == 0) {
      close(ends[0]);
      work(ends[1]);
      _exit(0);
    }
    close(ends[1]);
    m_end = ends[0];
  }
  ~Peer() {
    close(m_end);
    waitpid(m_pid, nullptr, 0);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  void Send(Nanoseconds word) const { Write(m_end, word); }
  Nanoseconds Receive() const {
    Nanoseconds word = 0;
    if (!Read(m_end, word)) {
      throw std::runtime_error("the peer has gone");
    }
    return word;
  }
  Nanoseconds Ask(Nanoseconds word) const {
    Send(word);
    return Receive();
  }

  static void Write(int end, Nanoseconds word) {
    if (write(end, &word, sizeof word) != sizeof word) {
      std::abort();
    }
  }
  static bool Read(int end, Nanoseconds& word) {
    return read(end, &word, sizeof word) == sizeof word;
  }

 private:
  pid_t m_pid = -1;
  int m_end = -1;
};

/// Samples of single operations, in blocks of both that alternate.
void CompareSamples(benchmark::State& state, const std::function<Nanoseconds()>& subject,
                    const std::function<Nanoseconds()>& plain) {
  std::vector<double> subjectTimes;
  std::vector<double> plainTimes;
  while (state.KeepRunning()) {
    for (int i = 0; i < SAMPLES_A_BLOCK; ++i) {
      subjectTimes.push_back(static_cast<double>(subject()));
    }
    for (int i = 0; i < SAMPLES_A_BLOCK; ++i) {
      plainTimes.push_back(static_cast<double>(plain()));
    }
  }
  const double subjectTime = Compare::Median(subjectTimes);
  const double plainTime = Compare::Median(plainTimes);
  state.counters["subject_ns"] = subjectTime;
  state.counters["plain_ns"] = plainTime;
  state.counters["ratio"] = subjectTime / plainTime;
}

/// Enough for the engine's log to be full once and begun again. While that file still grows, a sync
/// has more to do than ever after, and two logs that are not equally full cannot be compared.
std::string WholeLog() { return std::string(6 << 20, 'x'); }

void Set(const std::string& key, const std::string& value) {
  if (platform_settings_set_string(key.c_str(), value.c_str()) != 0) {
    throw std::runtime_error("the store cannot be written");
  }
}

/// Makes the store's files, from which the plain ones take their tables.
void Prepare(const Area& area) {
  TheDirectory();
  Set(area.key, WholeLog());
  Set(area.key, VALUE);
}

void Prepare(PlainDatabase& plain, const Area& area) {
  plain.Put(area.key, WholeLog());
  plain.Put(area.key, VALUE);
}

void UnchangedRead(benchmark::State& state) {
  const Area& area = AreaOf(state);
  Prepare(area);
  PlainDatabase plain(area);
  Prepare(plain, area);
  state.SetLabel("read of an unchanged key : prepared read");
  Compare::Run(
      state, READ_BLOCK, [&area] { std::free(platform_settings_get_string(area.key.c_str())); },
      [&] { std::free(plain.Get(area.key)); });
}
BENCHMARK(UnchangedRead)->Iterations(Compare::BLOCKS)->Arg(0)->Arg(1);

template <typename Operation>
Nanoseconds Timed(const Operation& operation) {
  const Nanoseconds start = Now();
  operation();
  return Now() - start;
}

void ChangedRead(benchmark::State& state) {
  constexpr Nanoseconds STORE = 0;
  const Area& area = AreaOf(state);
  Prepare(area);
  PlainDatabase plain(area);
  Prepare(plain, area);
  plain.Close();
  const Peer writer([&](int end) {
    plain.Reopen();
    for (Nanoseconds which = 0; Peer::Read(end, which);) {
      static int counter = 0;
      const std::string value = std::to_string(++counter);
      if (which == STORE) {
        Set(area.key, value);
      } else {
        plain.Put(area.key, value);
      }
      Peer::Write(end, which);
    }
  });
  plain.Reopen();
  state.SetLabel("read of a key changed by another process : prepared read of such");
  CompareSamples(
      state,
      [&] {
        writer.Ask(STORE);
        return Timed([&area] { std::free(platform_settings_get_string(area.key.c_str())); });
      },
      [&] {
        writer.Ask(STORE + 1);
        return Timed([&] { std::free(plain.Get(area.key)); });
      });
}
BENCHMARK(ChangedRead)->Iterations(Compare::BLOCKS)->Arg(0)->Arg(1);

void SetValue(benchmark::State& state) {
  const Area& area = AreaOf(state);
  Prepare(area);
  PlainDatabase plain(area);
  Prepare(plain, area);
  // A new value each time: the engine writes nothing where nothing changes.
  int counter = 0;
  state.SetLabel(std::string("set : prepared write, both WAL and synchronous=") + area.synchronous);
  // Blocks, since every so often a write trims the log, and another empties the engine's.
  Compare::Run(
      state, WRITE_BLOCK, [&] { Set(area.key, std::to_string(++counter)); },
      [&] { plain.Put(area.key, std::to_string(++counter)); });
}
BENCHMARK(SetValue)->Iterations(Compare::BLOCKS)->Arg(0)->Arg(1);

/// Called in the subscriber: answers how long ago the set began.
void AnswerAge(platform_settings_node* node, void* end) {
  const Nanoseconds arrived = Now();
  Peer::Write(*static_cast<int*>(end), arrived - std::stoll(platform_settings_node_string(node)));
}

/// From the beginning of the set to the callback in another process.
void SetToCallback(benchmark::State& state) {
  const Area& area = AreaOf(state);
  const bool isSynced = state.range(0) != 0;
  Prepare(area);
  PlainDatabase plain(area);
  Prepare(plain, area);
  plain.Close();
  const Peer subscriber([&](int end) {
    if (platform_settings_subscribe(area.key.c_str(), &AnswerAge, &end) != 0) {
      return;
    }
    const auto quit = [](gint, GIOCondition, gpointer loop) -> gboolean {
      g_main_loop_quit(static_cast<GMainLoop*>(loop));
      return G_SOURCE_REMOVE;
    };
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    GSource* hangUp = g_unix_fd_source_new(end, G_IO_HUP);
    g_source_set_callback(hangUp, G_SOURCE_FUNC(+quit), loop, nullptr);
    g_source_attach(hangUp, nullptr);
    Peer::Write(end, 0);
    g_main_loop_run(loop);
  });
  const Peer echo([](int end) {
    for (Nanoseconds word = 0; Peer::Read(end, word);) {
      Peer::Write(end, word);
    }
  });
  subscriber.Receive();
  plain.Reopen();
  state.SetLabel(isSynced
                     ? "set to callback elsewhere : prepared write and socket pair's round trip"
                     : "set to callback elsewhere : socket pair's round trip");
  CompareSamples(
      state,
      [&] {
        Set(area.key, std::to_string(Now()));
        return subscriber.Receive();
      },
      [&] {
        return Timed([&] {
          if (isSynced) {
            plain.Put(area.key, std::to_string(Now()));
          }
          echo.Ask(0);
        });
      });
}
BENCHMARK(SetToCallback)->Iterations(Compare::BLOCKS)->Arg(0)->Arg(1);

}  // namespace
