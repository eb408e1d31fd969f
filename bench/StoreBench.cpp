// The host backend's settings store, each operation beside what it is made of: reads and writes
// beside the same engine with the same tables and settings but neither log nor bell, a change that
// arrives in another process beside a socket pair's round trip.

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
constexpr int MEMORY_WRITE_BLOCK = 500;
constexpr int SYNCED_WRITE_BLOCK = 20;
constexpr int SAMPLES_A_BLOCK = 50;
constexpr char VALUE[] = "running";

/// The areas of the store: `memory/` is not synced, the rest is.
struct Area {
  std::string key;
  std::string database;
  const char* synchronous;
  int writeBlock;
};

const Area& AreaOf(const benchmark::State& state) {
  static const std::array<Area, 2> areas = {
      Area{"memory/menu/network/ondaro_status", "memory.db", "OFF", MEMORY_WRITE_BLOCK},
      Area{"db/menu/network/ondaro_status", "settings.db", "FULL", SYNCED_WRITE_BLOCK}};
  return areas.at(static_cast<std::size_t>(state.range(0)));
}

/// The store's directory, gone with the process that made it.
class Directory {
 public:
  Directory() : m_path((fs::temp_directory_path() / "ondaro-bench-XXXXXX").string()) {
    if (mkdtemp(m_path.data()) == nullptr) {
      throw std::runtime_error("no temporary directory");
    }
    setenv("ONDARO_HOST_STATE", m_path.c_str(), 1);
  }
  ~Directory() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  fs::path Path() const { return m_path; }

  fs::path Find(const std::string& name) const {
    for (const auto& entry : fs::recursive_directory_iterator(m_path)) {
      if (entry.path().filename() == name) {
        return entry.path();
      }
    }
    throw std::runtime_error("no " + name);
  }

 private:
  std::string m_path;
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
    sqlite3_bind_int64(m_put, 3, 1);
    if (sqlite3_step(m_put) != SQLITE_DONE) {
      throw std::runtime_error(sqlite3_errmsg(m_connection));
    }
    sqlite3_reset(m_put);
  }

 private:
  void Open() {
    if (sqlite3_open_v2(m_path.c_str(), &m_connection,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
      throw std::runtime_error("no database");
    }
    Execute("PRAGMA journal_mode=WAL");
    Execute(std::string("PRAGMA synchronous=") + m_area.synchronous);
  }
  void Prepare() {
    constexpr char GET[] = "SELECT value FROM item WHERE key=?1";
    constexpr char PUT[] =
        "INSERT INTO item(key,value,seq) VALUES(?1,?2,?3)"
        " ON CONFLICT(key) DO UPDATE SET value=excluded.value,seq=excluded.seq";
    sqlite3_prepare_v3(m_connection, GET, -1, SQLITE_PREPARE_PERSISTENT, &m_get, nullptr);
    sqlite3_prepare_v3(m_connection, PUT, -1, SQLITE_PREPARE_PERSISTENT, &m_put, nullptr);
    if (m_get == nullptr || m_put == nullptr) {
      throw std::runtime_error(sqlite3_errmsg(m_connection));
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

/// Makes the store's files, from which the plain ones take their tables.
void Prepare(const Area& area) {
  TheDirectory();
  if (platform_settings_set_string(area.key.c_str(), VALUE) != 0) {
    throw std::runtime_error("the store cannot be written");
  }
}

void UnchangedRead(benchmark::State& state) {
  const Area& area = AreaOf(state);
  Prepare(area);
  PlainDatabase plain(area);
  plain.Put(area.key, VALUE);
  Compare::Run(
      state, READ_BLOCK, [&area] { std::free(platform_settings_get_string(area.key.c_str())); },
      [&] { std::free(plain.Get(area.key)); });
}
BENCHMARK(UnchangedRead)->Iterations(Compare::BLOCKS)->Arg(0)->Arg(1);

template <typename Read>
Nanoseconds Timed(const Read& read) {
  const Nanoseconds start = Now();
  char* value = read();
  const Nanoseconds elapsed = Now() - start;
  std::free(value);
  return elapsed;
}

void ChangedRead(benchmark::State& state) {
  constexpr Nanoseconds STORE = 0;
  const Area& area = AreaOf(state);
  Prepare(area);
  PlainDatabase plain(area);
  plain.Close();
  const Peer writer([&](int end) {
    plain.Reopen();
    for (Nanoseconds which = 0; Peer::Read(end, which);) {
      static int counter = 0;
      const std::string value = std::to_string(++counter);
      if (which == STORE) {
        platform_settings_set_string(area.key.c_str(), value.c_str());
      } else {
        plain.Put(area.key, value);
      }
      Peer::Write(end, which);
    }
  });
  plain.Reopen();
  CompareSamples(
      state,
      [&] {
        writer.Ask(STORE);
        return Timed([&area] { return platform_settings_get_string(area.key.c_str()); });
      },
      [&] {
        writer.Ask(STORE + 1);
        return Timed([&] { return plain.Get(area.key); });
      });
}
BENCHMARK(ChangedRead)->Iterations(Compare::BLOCKS)->Arg(0)->Arg(1);

void Set(benchmark::State& state) {
  const Area& area = AreaOf(state);
  Prepare(area);
  PlainDatabase plain(area);
  // A new value each time: the engine writes nothing where nothing changes.
  int counter = 0;
  Compare::Run(
      state, area.writeBlock,
      [&] { platform_settings_set_string(area.key.c_str(), std::to_string(++counter).c_str()); },
      [&] { plain.Put(area.key, std::to_string(++counter)); });
}
BENCHMARK(Set)->Iterations(Compare::BLOCKS)->Arg(0)->Arg(1);

/// Called in the subscriber: answers how long ago the set began.
void AnswerAge(platform_settings_node* node, void* end) {
  const Nanoseconds arrived = Now();
  Peer::Write(*static_cast<int*>(end), arrived - std::stoll(platform_settings_node_string(node)));
}

/// From the beginning of the set to the callback in another process.
void SetToCallback(benchmark::State& state) {
  const Area& area = AreaOf(state);
  Prepare(area);
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
  CompareSamples(
      state,
      [&] {
        platform_settings_set_string(area.key.c_str(), std::to_string(Now()).c_str());
        return subscriber.Receive();
      },
      [&] {
        const Nanoseconds start = Now();
        echo.Ask(start);
        return Now() - start;
      });
}
BENCHMARK(SetToCallback)->Iterations(Compare::BLOCKS)->Arg(0)->Arg(1);

}  // namespace
