// The store beside a disk that loses its power, damages what it holds or fails a call, and beside
// processes that stand still. Cases are made from seeds: one that fails tells its seed, and
// ONDARO_TEST_SEED runs that alone.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdarg>
#include <iostream>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "FileCalls.h"
#include "HostSupport.h"
#include "StoreArea.h"
#include "platform/Log.h"
#include "support/Tier.h"

namespace {

std::string g_logged;

}  // namespace

int platform_log_print(int, int, const char*, const char* format, ...) {
  std::array<char, 1000> line{};
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  g_logged += std::string(line.data()) + "\n";
  return 0;
}

namespace ondaro::test {
namespace {

namespace fs = std::filesystem;
using host::SettingsChange;
using Clock = std::chrono::steady_clock;
using Files = std::map<std::string, std::string>;  // content by name
using Kind = FileCall::Kind;
using Random = std::mt19937;

constexpr int KEYS = 5;

std::string KeyOf(int number, const std::string& area = "db/") {
  return area + std::to_string(number % KEYS);
}
int NumberOf(const std::string& value) { return std::atoi(value.c_str()); }
int NumberOf(const SettingsChange& change) { return NumberOf(std::get<std::string>(change.value)); }

Files ReadFiles(const std::string& directory) {
  Files files;
  for (const auto& entry : fs::directory_iterator(directory)) {
    files[entry.path().filename()] = ReadFile(entry.path());
  }
  return files;
}

void WriteFiles(const Files& files, const TemporaryDirectory& directory) {
  for (const auto& [name, content] : files) {
    WriteFile(directory / name, content);
  }
}

/// Each in a process of its own, so that one that ends its process fails alone. Those of the corpus
/// once failed.
template <typename Run>
void ForEachSeed(unsigned count, std::vector<unsigned> seeds, Run run) {
  constexpr int MANY = 20;
  for (unsigned seed = 0; seed < count; ++seed) {
    seeds.push_back(seed);
  }
  if (const char* const given = std::getenv("ONDARO_TEST_SEED")) {
    seeds = {static_cast<unsigned>(std::atoi(given))};
  }
  int failed = 0;
  for (auto seed = seeds.begin(); seed != seeds.end() && failed < MANY; ++seed) {
    const int status = RunInChild([&] {
      Random random(*seed);
      run(random);
      _exit(testing::Test::HasFailure() ? 1 : 0);
    });
    EXPECT_EQ(status, 0) << "seed " << *seed;
    failed += status != 0 ? 1 : 0;
  }
  std::cout << seeds.size() << " cases\n";
}

/// What a power cut leaves of a directory: of what was written to a file since its last sync each
/// sector may be lost; of the names made and removed since the directory's last sync, each.
class Disk {
 public:
  explicit Disk(std::string directory) : m_directory(std::move(directory)) {}

  /// Before the call is made.
  void Note(const FileCall& call) {
    if (call.kind == Kind::SYNC && call.path == m_directory) {
      m_names = ReadFiles(m_directory);
    } else if (call.kind == Kind::SYNC) {
      m_synced[call.path] = ReadFile(call.path);
    }
  }

  Files AfterCut(Random& random) {
    Files files;
    const Files now = ReadFiles(m_directory);
    Files all = now;
    all.insert(m_names.begin(), m_names.end());
    // Some cuts lose all that they can, some nothing, most a part.
    const auto mood = random() % 4;
    const auto isLost = [&] { return mood < 2 ? mood == 0 : random() % 2 == 0; };
    for (const auto& [name, content] : all) {
      const bool isSynced = now.count(name) == m_names.count(name);
      if (isSynced || isLost() == (m_names.count(name) != 0)) {
        files[name] = Mix(m_synced[m_directory + "/" + name], content, isLost);
      }
    }
    return files;
  }

 private:
  template <typename IsLost>
  static std::string Mix(const std::string& synced, const std::string& now, IsLost isLost) {
    constexpr std::size_t SECTOR = 512;
    std::string mixed(isLost() ? synced.size() : now.size(), '\0');
    for (std::size_t at = 0; at < mixed.size(); at += SECTOR) {
      const std::string& from = at >= now.size() || (at < synced.size() && isLost()) ? synced : now;
      from.copy(&mixed[at], std::min(SECTOR, mixed.size() - at), at);
    }
    return mixed;
  }

  const std::string m_directory;
  Files m_names;   // with the directory's last sync
  Files m_synced;  // by path
};

/// The first thing wrong with what a cut left of numbered writes, or nothing.
std::string Judge(const Files& left, int acknowledged, const std::string& keys) {
  const TemporaryDirectory after(FastDirectory());
  WriteFiles(left, after);
  StoreArea area(after.Path());
  for (int number = acknowledged; number > 0 && number > acknowledged - KEYS; --number) {
    const int found = NumberOf(area.Get(KeyOf(number, keys)));
    if (found != number && found != acknowledged + 1) {
      return "lost " + std::to_string(number) + ", found " + std::to_string(found);
    }
  }
  const std::vector<SettingsChange> log = area.Log();
  for (std::size_t i = 1; i < log.size(); ++i) {
    if (NumberOf(log[i]) != NumberOf(log[i - 1]) + 1) {
      return "a gap in the log after " + std::to_string(NumberOf(log[i - 1]));
    }
  }
  if (acknowledged > 0 && (log.empty() || NumberOf(log.back()) < acknowledged)) {
    return "the log ends early";
  }
  const auto position = area.Last();
  const bool works = area.Set("db/new", "new") && StoreArea(after.Path()).Get("db/new") == "new";
  return works && area.Log(position).size() == 1 ? "" : "no new writes";
}

/// How many of the cuts in a store's life have left something wrong; each is told.
int CountLosses(Random& random, const std::string& keys) {
  constexpr int CUTS = 20;
  const TemporaryDirectory directory(FastDirectory());
  Disk disk(directory.Path());
  // Some lives end while the store is made, some run into the log's trimming and the engine's
  // checkpoint.
  const auto callsBetween = 1 + random() % (random() % 2 == 0 ? 20 : 400);
  const auto longest = random() % 3 == 0 ? 60'000U : 200U;
  std::vector<Files> left;
  int cuts = 0;
  int losses = 0;
  StoreArea area(directory.Path());
  for (int number = 1; cuts < CUTS; ++number) {
    {
      const FileWatch watch([&](const FileCall& call) {
        if (random() % callsBetween == 0) {
          left.push_back(disk.AfterCut(random));
        }
        disk.Note(call);
        return 0;
      });
      const std::string value(random() % longest, 'x');
      EXPECT_TRUE(area.Set(KeyOf(number, keys), std::to_string(number) + ":" + value));
    }
    for (; !left.empty(); left.pop_back(), ++cuts) {
      g_logged.clear();
      const std::string wrong = Judge(left.back(), number - 1, keys) + g_logged;
      losses += wrong.empty() ? 0 : 1;
      std::cerr << wrong;
    }
  }
  return losses;
}

TEST(StoreDisk, PowerCutLosesNoAcknowledgedWrite) {
  ForEachSeed(ByTier(8U, 25U, 100U), {},
              [](Random& random) { EXPECT_EQ(CountLosses(random, "db/"), 0); });
}

TEST(StoreDisk, PowerCutOfAStoreThatDoesNotSyncIsSeenToLoseWrites) {
  Random random(1);
  EXPECT_GT(CountLosses(random, "memory/"), 0);
}

void Execute(const std::string& database, const char* sql) {
  sqlite3* connection = nullptr;
  EXPECT_EQ(sqlite3_open(database.c_str(), &connection), SQLITE_OK);
  int keep = 1;
  sqlite3_file_control(connection, nullptr, SQLITE_FCNTL_PERSIST_WAL, &keep);
  EXPECT_EQ(sqlite3_exec(connection, sql, nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(connection);
}

/// The files of a store that has been in use: the last writes in the engine's log only.
Files UsedStore(int writes) {
  const TemporaryDirectory directory(FastDirectory());
  StoreArea area(directory.Path());
  for (int number = 1; number <= writes; ++number) {
    const auto size = number % 10 == 0 ? 6'000U : 10U;
    area.Set(KeyOf(number), std::to_string(number) + ":" + std::string(size, 'x'));
  }
  return ReadFiles(directory.Path());
}

/// Flips bits, puts zeros or another page in the place of one, or ends the file early. `keepsSize`
/// for what is mapped: a file cut short under its readers ends them.
void Damage(std::string& content, bool keepsSize, Random& random) {
  constexpr std::size_t PAGE = 4096;
  const std::size_t size = content.size();
  if (size == 0) {
    return;
  }
  // Headers are small and decide most.
  const auto somewhere = [&] {
    return random() % (random() % 2 == 0 ? size : std::min<std::size_t>(128, size));
  };
  const auto kind = random() % (keepsSize ? 3 : 4);
  if (kind == 0) {
    for (auto flips = 1 + random() % 8; flips > 0; --flips) {
      char& byte = content[somewhere()];
      byte = static_cast<char>(static_cast<unsigned char>(byte) ^ (1U << random() % 8));
    }
  } else if (kind == 3) {
    content.resize(random() % 4 == 0 ? 0 : somewhere());
  } else {
    const std::string page =
        kind == 1 ? std::string(PAGE, '\0') : content.substr(somewhere() / PAGE * PAGE, PAGE);
    content.replace(somewhere() / PAGE * PAGE, page.size(), page).resize(size);
  }
}

TEST(StoreDisk, DamagedFileIsOpenedOrSetAside) {
  static const Files used = UsedStore(120);
  ForEachSeed(ByTier(300U, 4000U, 20'000U), {1213, 1699}, [](Random& random) {
    const TemporaryDirectory directory(FastDirectory());
    WriteFiles(used, directory);
    // With the engine's log empty its pages count no more.
    const std::array<const char*, 3> before = {"", "PRAGMA wal_checkpoint(TRUNCATE)",
                                               "DROP TABLE item"};
    Execute(directory / "settings.db", before.at(random() % 50 == 0 ? 2 : random() % 2));
    g_logged.clear();
    std::optional<StoreArea> area(std::in_place, directory.Path());
    const bool inUse = random() % 3 == 0;
    if (inUse) {
      area->Get(KeyOf(0));
    }
    const std::array<const char*, 3> names = {"settings.db-wal", "settings.db", "settings.bell"};
    const std::string name = names.at(random() % 5 / 2);
    std::string content = ReadFile(directory / name);
    Damage(content, false, random);
    std::fstream(directory / name, std::ios::in | std::ios::out | std::ios::binary) << content;
    fs::resize_file(directory / name, content.size());

    for (int key = 0; key < KEYS; ++key) {
      area->Get(KeyOf(key));
    }
    area->Log();
    EXPECT_TRUE(area->Set("db/new", "new")) << name << area->Errors();
    EXPECT_EQ(area->Get("db/new"), "new") << name;
    StoreArea other(directory.Path());
    other.Get("db/new");
    if (inUse && other.Errors().find("locked") != std::string::npos) {
      // Its mode of locking is damaged; whoever has it open works on, and the next one repairs it.
      area.emplace(directory.Path());
    }
    EXPECT_TRUE(other.Set("db/new", "newer")) << name;
    EXPECT_EQ(area->Get("db/new"), "newer") << name;
    for (int key = 0; key < KEYS; ++key) {
      EXPECT_NE(area->Get(KeyOf(key)), "(error)") << name;
    }
    const Files left = ReadFiles(directory.Path());
    const bool isSetAside = std::any_of(left.begin(), left.end(), [](const auto& file) {
      return file.first.find(".damaged-") != std::string::npos;
    });
    EXPECT_EQ(isSetAside, g_logged.find(" is damaged; it is kept as ") != std::string::npos);
  });
}

struct Failing {
  int call;
  int error;
  bool isForGood;  // later calls fail as well, if they change something
};

/// Sets a value `writes` times meanwhile; false when there were not as many calls.
bool FailCall(const Files& before, int writes, std::size_t size, const Failing& failing) {
  SCOPED_TRACE(testing::Message() << writes << " writes, call " << failing.call
                                  << (failing.isForGood ? " and later, error " : ", error ")
                                  << failing.error);
  const TemporaryDirectory directory(FastDirectory());
  WriteFiles(before, directory);
  StoreArea area(directory.Path());
  const auto found = [&](const std::string& key) { return StoreArea(directory.Path()).Get(key); };
  const std::string other = before.empty() ? "(none)" : found("db/1");
  std::string kept = before.empty() ? "(none)" : found("db/0");
  int calls = 0;
  const FileWatcher watcher = [&](const FileCall& call) {
    const bool changes =
        call.kind != Kind::OPEN && call.kind != Kind::READ && call.kind != Kind::MAP;
    const bool isLater = failing.isForGood && calls >= failing.call && changes;
    return ++calls == failing.call || isLater ? failing.error : 0;
  };
  for (int write = 1; write <= writes; ++write) {
    const std::string value = std::to_string(write) + std::string(size, 'x');
    const bool isSet = [&] {
      const FileWatch watch(watcher);
      return area.Set("db/0", value);
    }();
    EXPECT_TRUE(isSet || calls >= failing.call) << area.Errors();
    kept = isSet ? value : kept;
    EXPECT_EQ(area.Get("db/0"), kept) << area.Errors();
    EXPECT_EQ(found("db/0"), kept) << area.Errors();
  }
  EXPECT_TRUE(area.Set("db/0", "after"));
  EXPECT_EQ(found("db/0"), "after");
  EXPECT_EQ(found("db/1"), other);
  return calls >= failing.call;
}

TEST(StoreDisk, CallThatFailsFailsNoMoreThanItsSet) {
  const Files used = UsedStore(KEYS);
  int cases = 0;
  for (const int error : {ENOSPC, EIO, EACCES}) {
    for (const bool isForGood : {false, true}) {
      const auto failEach = [&](const Files& before, int writes, std::size_t size, int stride) {
        int call = 1;
        while (FailCall(before, writes, size, {call, error, isForGood})) {
          call += stride;
          ++cases;
        }
      };
      failEach({}, 1, 10, 1);
      failEach(used, 3, 100, 1);
      failEach(used, 25, 100'000, ByTier(97, 5, 1));  // enough for the engine's checkpoint
    }
  }
  std::cout << cases << " cases\n";
}

TEST(StoreDisk, WhatMayNotBeWrittenIsRead) {
  for (const std::string name : {"", "settings.db", "settings.bell"}) {
    const TemporaryDirectory directory(FastDirectory());
    ASSERT_TRUE(StoreArea(directory.Path()).Set("key", "kept"));
    const fs::perms before = fs::status(directory / name).permissions();
    fs::permissions(directory / name, fs::perms::owner_write, fs::perm_options::remove);
    EXPECT_EQ(RunInChild([&] {
                // Root obeys the modes of files like anyone once it has no capabilities.
                const std::array<unsigned, 2> header = {0x20080522, 0};
                const std::array<unsigned, 6> none = {};
                syscall(SYS_capset, header.data(), none.data());
                StoreArea area(directory.Path());
                const bool isRead = area.Get("key") == "kept";
                // In a directory that may not be written the files may still be.
                const bool isRefused =
                    name.empty() || (!area.Set("key", "lost") && area.Get("key") == "kept");
                _exit(isRead && isRefused ? 0 : 1);
              }),
              0)
        << name;
    fs::permissions(directory / name, before);
    StoreArea area(directory.Path());
    EXPECT_EQ(area.Get("key"), "kept");
    EXPECT_TRUE(area.Set("key", "written"));
  }
}

constexpr auto BOUND = 5 * host::SETTINGS_LONGEST_WAIT;

TEST(StoreWaits, BoundedlyForAWriterThatStandsStillAndOneThatOpens) {
  const TemporaryDirectory directory(FastDirectory());
  StoreArea area(directory.Path());
  ASSERT_TRUE(area.Set("key", "before"));
  Child stopped([&] {
    bool hasStopped = false;
    const FileWatch watch([&](const FileCall& call) {
      const bool mustStop = call.kind == Kind::SYNC && !std::exchange(hasStopped, true);
      return mustStop ? raise(SIGSTOP) : 0;
    });
    _exit(StoreArea(directory.Path()).Set("key", "stopped") ? 0 : 1);
  });
  ASSERT_EQ(waitpid(stopped.Pid(), nullptr, WUNTRACED), stopped.Pid());
  auto start = Clock::now();
  EXPECT_TRUE(area.Get("key") == "before" && area.Last() >= 0);
  EXPECT_LT(Clock::now() - start, host::SETTINGS_LONGEST_WAIT);
  EXPECT_FALSE(area.Set("key", "late"));
  EXPECT_LT(Clock::now() - start, BOUND);
  kill(stopped.Pid(), SIGCONT);
  EXPECT_EQ(stopped.Wait(), 0);
  EXPECT_EQ(area.Get("key"), "stopped");
}

}  // namespace
}  // namespace ondaro::test
