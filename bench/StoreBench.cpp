// The host backend's settings store, each operation beside what it is made of: SQLite by hand with
// the store's journal mode, synchronous setting and transaction, but neither log nor bell, and a
// socket pair for what crosses processes. Run by bench/run.

#include <benchmark/benchmark.h>
#include <glib-unix.h>
#include <sqlite3.h>
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

#include "platform/SettingsStore.h"

namespace {

constexpr char MEMORY_KEY[] = "memory/menu/network/ondaro_status";
constexpr char DURABLE_KEY[] = "db/menu/network/ondaro_status";

/// Both stores lie in here; gone with the process that made it.
const std::string& Directory() {
  static const struct Made {
    std::string path = (std::filesystem::temp_directory_path() / "ondaro-bench-XXXXXX").string();
    pid_t owner = getpid();
    Made() { setenv("ONDARO_HOST_STATE", mkdtemp(path.data()), 1); }
    ~Made() {
      if (owner == getpid()) {
        std::filesystem::remove_all(path);
      }
    }
  } made;
  return made.path;
}

void Require(bool done) {
  if (!done) {
    throw std::runtime_error("a store does not work");
  }
}

/// SQLite by hand.
class Plain {
 public:
  explicit Plain(const std::string& key) {
    const std::string path = Directory() + "/plain.db";
    Require(sqlite3_open(path.c_str(), &m_connection) == SQLITE_OK);
    sqlite3_busy_timeout(m_connection, 2000);
    Execute(
        "PRAGMA journal_mode=WAL; CREATE TABLE IF NOT EXISTS"
        " item(key TEXT NOT NULL PRIMARY KEY, seq INTEGER NOT NULL, value NOT NULL)");
    Execute(key == MEMORY_KEY ? "PRAGMA synchronous=NORMAL" : "PRAGMA synchronous=FULL");
    const std::array<const char*, 4> texts = {
        "SELECT value FROM item WHERE key=?1",
        "INSERT INTO item(key,value,seq) VALUES(?1,?2,1)"
        " ON CONFLICT(key) DO UPDATE SET value=excluded.value,seq=excluded.seq",
        "BEGIN IMMEDIATE", "COMMIT"};
    for (std::size_t i = 0; i < texts.size(); ++i) {
      sqlite3_prepare_v2(m_connection, texts.at(i), -1, &m_statements.at(i), nullptr);
    }
  }
  ~Plain() {
    for (sqlite3_stmt* statement : m_statements) {
      sqlite3_finalize(statement);
    }
    sqlite3_close(m_connection);
  }
  Plain(const Plain&) = delete;
  Plain& operator=(const Plain&) = delete;

  char* Get(const std::string& key) {
    char* copy = nullptr;
    sqlite3_bind_text(m_statements[0], 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    if (sqlite3_step(m_statements[0]) == SQLITE_ROW) {
      copy = strdup(reinterpret_cast<const char*>(sqlite3_column_text(m_statements[0], 0)));
    }
    sqlite3_reset(m_statements[0]);
    return copy;
  }
  void Set(const std::string& key, const std::string& value) {
    sqlite3_bind_text(m_statements[1], 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    sqlite3_bind_text(m_statements[1], 2, value.data(), static_cast<int>(value.size()), nullptr);
    for (const std::size_t step : {2U, 1U, 3U}) {
      Require(sqlite3_step(m_statements.at(step)) == SQLITE_DONE);
      sqlite3_reset(m_statements.at(step));
    }
  }

 private:
  void Execute(const char* sql) {
    Require(sqlite3_exec(m_connection, sql, nullptr, nullptr, nullptr) == SQLITE_OK);
  }

  sqlite3* m_connection = nullptr;
  std::array<sqlite3_stmt*, 4> m_statements{};
};

/// The store under the same interface.
struct Library {
  explicit Library(const std::string& /*key*/) { Directory(); }
  static char* Get(const std::string& key) { return platform_settings_get_string(key.c_str()); }
  static void Set(const std::string& key, const std::string& value) {
    Require(platform_settings_set_string(key.c_str(), value.c_str()) == 0);
  }
};

/// A new value each time: the engine writes nothing where nothing changes.
std::string NextValue() {
  static int counter = 0;
  return std::to_string(++counter);
}

/// A forked process that answers each word with one; it ends with this object.
class Peer {
 public:
  explicit Peer(const std::function<void(int)>& work) {
    Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_ends.data()) == 0);
    m_pid = fork();
    if (m_pid == 0) {
      close(m_ends[0]);
      work(m_ends[1]);
      _exit(0);
    }
    close(m_ends[1]);
  }
  ~Peer() {
    close(m_ends[0]);
    waitpid(m_pid, nullptr, 0);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  void Receive() const {
    char word = 0;
    Require(read(m_ends[0], &word, 1) == 1);
  }
  void Ask() const {
    Require(write(m_ends[0], "?", 1) == 1);
    Receive();
  }
  /// Answers until the other end is closed.
  static void Serve(int end, const std::function<void()>& work) {
    for (char word = 0; read(end, &word, 1) == 1;) {
      work();
      Require(write(end, &word, 1) == 1);
    }
  }

 private:
  std::array<int, 2> m_ends{};
  pid_t m_pid = -1;
};

template <typename Store>
void UnchangedRead(benchmark::State& state, const std::string& key, int keys) {
  Store store(key);
  for (int other = 0; other < keys; ++other) {
    store.Set(MEMORY_KEY + std::to_string(other), "value");
  }
  store.Set(key, "value");
  for (auto _ : state) {
    std::free(store.Get(key));
  }
}

template <typename Store>
void ChangedRead(benchmark::State& state, const std::string& key) {
  const Peer writer([&](int end) {
    Store store(key);
    Peer::Serve(end, [&] { store.Set(key, NextValue()); });
  });
  Store store(key);
  for (auto _ : state) {
    writer.Ask();
    const auto start = std::chrono::steady_clock::now();
    std::free(store.Get(key));
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(taken.count());
  }
}

template <typename Store>
void Set(benchmark::State& state, const std::string& key) {
  Store store(key);
  for (auto _ : state) {
    store.Set(key, NextValue());
  }
}

void SetToCallback(benchmark::State& state, int others) {
  Library store(MEMORY_KEY);
  const Peer subscriber([&](int end) {
    const auto answer = [](platform_settings_node*, void* to) {
      Require(write(*static_cast<int*>(to), "!", 1) == 1);
    };
    for (int other = 0; other < others; ++other) {
      const std::string key = "memory/" + std::to_string(other);
      Require(platform_settings_subscribe(key.c_str(), answer, &end) == 0);
    }
    Require(platform_settings_subscribe(MEMORY_KEY, answer, &end) == 0);
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    g_unix_fd_add(
        end, G_IO_HUP,
        [](gint, GIOCondition, gpointer running) -> gboolean {
          g_main_loop_quit(static_cast<GMainLoop*>(running));
          return G_SOURCE_REMOVE;
        },
        loop);
    Require(write(end, "!", 1) == 1);
    g_main_loop_run(loop);
  });
  subscriber.Receive();
  for (auto _ : state) {
    Library::Set(MEMORY_KEY, NextValue());
    subscriber.Receive();
  }
}

void RoundTrip(benchmark::State& state) {
  const Peer echo([](int end) { Peer::Serve(end, [] {}); });
  for (auto _ : state) {
    echo.Ask();
  }
}

template <typename Store>
void Register(const std::string& kind) {
  for (const std::string key : {MEMORY_KEY, DURABLE_KEY}) {
    const auto name = [&](const std::string& what) {
      return what + " of a " + key.substr(0, key.find('/')).append(" key/").append(kind);
    };
    for (const int keys : {100, 100'000}) {
      if (key == MEMORY_KEY) {
        benchmark::RegisterBenchmark(
            ("unchanged read among " + std::to_string(keys) + "/" + kind).c_str(),
            UnchangedRead<Store>, key, keys);
      }
    }
    benchmark::RegisterBenchmark(name("changed read").c_str(), ChangedRead<Store>, key)
        ->UseManualTime();
    benchmark::RegisterBenchmark(name("set").c_str(), Set<Store>, key)->UseRealTime();
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Register<Library>("library");
  Register<Plain>("plain");
  for (const int others : {0, 9'999}) {
    const std::string name = "set to callback among " + std::to_string(others + 1);
    benchmark::RegisterBenchmark((name + "/library").c_str(), SetToCallback, others)->UseRealTime();
    benchmark::RegisterBenchmark((name + "/plain").c_str(), RoundTrip)->UseRealTime();
  }
  benchmark::RunSpecifiedBenchmarks();
}
