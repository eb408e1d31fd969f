// The store beside a disk that loses its power, damages what it holds or fails a call. The cases
// are made from seeds: one that fails tells its seed, ONDARO_TEST_SEED runs that alone, and those
// that once failed stay in the corpus.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <functional>
#include <iostream>
#include <optional>
#include <random>
#include <vector>

#include "HostSupport.h"
#include "PowerCut.h"
#include "SettingsArea.h"
#include "SettingsError.h"
#include "Tier.h"
#include "platform/Log.h"

namespace {

std::string g_errorLines;

}  // namespace

int platform_log_print(int, int, const char*, const char* format, ...) {
  std::array<char, 1000> line{};
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  g_errorLines += std::string(line.data()) + "\n";
  return 0;
}

namespace ondaro::test {
namespace {

namespace fs = std::filesystem;
using host::SettingsArea;
using host::SettingsChange;
using Durability = host::SettingsDatabase::Durability;
using Random = std::mt19937;
using Seeds = std::vector<unsigned>;

constexpr int KEYS = 5;

Files ReadFiles(const fs::path& directory) {
  Files files;
  for (const auto& entry : fs::directory_iterator(directory)) {
    files[entry.path().filename()] = ReadFile(entry.path());
  }
  return files;
}

void WriteFiles(const Files& files, const fs::path& directory) {
  for (const auto& [name, content] : files) {
    WriteFile(directory / fs::path(name).filename(), content);
  }
}

/// What a process has of the store's durable keys.
class AreaOn {
 public:
  explicit AreaOn(const std::string& directory, Durability durability = Durability::SYNCED)
      : m_area([directory] { return directory; }, "settings", durability) {}

  bool Set(const std::string& key, const std::string& value) {
    return Try([&] { m_area.Write(key, value); });
  }
  /// The text; "(none)" for a missing key, "(error)" for a call that failed.
  std::string Get(const std::string& key) {
    std::string text = "(none)";
    const bool isRead = Try([&] {
      m_area.Read(key, [&](const std::optional<host::SettingsValue>& value) {
        const std::string* found = value ? std::get_if<std::string>(&*value) : nullptr;
        text = found != nullptr ? *found : text;
      });
    });
    return isRead ? text : "(error)";
  }
  bool Follow() {
    return Try([&] { m_area.Follow(); });
  }
  /// All that the log still holds.
  std::vector<SettingsChange> Log() {
    std::vector<SettingsChange> all;
    Try([&] {
      std::vector<SettingsChange> next;
      do {
        next = m_area.ChangesAfterGap(all.empty() ? 0 : all.back().sequence, {});
        all.insert(all.end(), next.begin(), next.end());
      } while (!next.empty());
    });
    return all;
  }

 private:
  template <typename Operation>
  static bool Try(Operation operation) {
    try {
      operation();
      return true;
    } catch (const host::SettingsError& error) {
      g_errorLines += std::string(error.what()) + "\n";
      return false;
    }
  }

  SettingsArea m_area;
};

std::string KeyOf(int number) { return "key/" + std::to_string(number % KEYS); }
int NumberOf(const std::string& value) { return std::atoi(value.c_str()); }

/// In processes of their own, so that a case that ends its process fails alone.
void ForEachSeed(int count, const Seeds& corpus, const std::function<void(Random&)>& run) {
  constexpr std::size_t MANY = 40;
  Seeds seeds = corpus;
  for (int seed = 0; seed < count; ++seed) {
    seeds.push_back(static_cast<unsigned>(seed));
  }
  if (const char* given = std::getenv("ONDARO_TEST_SEED")) {
    seeds = {static_cast<unsigned>(std::atoi(given))};
  }
  auto* const next = static_cast<std::atomic<std::size_t>*>(mmap(
      nullptr, sizeof(std::size_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  std::vector<std::string> failed;
  while (*next < seeds.size() && failed.size() < MANY) {
    const int status = RunInChild([&] {
      alarm(0);
      while (*next < seeds.size()) {
        Random random(seeds[*next]);
        alarm(60);
        run(random);
        if (testing::Test::HasFailure()) {
          std::cerr << g_errorLines;
          _exit(1);
        }
        ++*next;
      }
    });
    if (status != 0) {
      failed.push_back(std::to_string(seeds[(*next)++]) + ", wait status " +
                       std::to_string(status));
    }
  }
  munmap(next, sizeof(std::size_t));
  EXPECT_EQ(failed, std::vector<std::string>{}) << "seeds that failed";
}

/// Writes numbered values and notes what each call did to the disk.
class Recording {
 public:
  Recording(Random& random, Durability durability) : m_directory(FastDirectory()) {
    const FileWatch watch([this](const FileCall& call) {
      m_disk.Add(call);
      return 0;
    });
    AreaOn area(m_directory.Path(), durability);
    // Some run into the log's trimming, some into the engine's checkpoint.
    const int few = static_cast<int>(random() % 60);
    const int count = random() % 2 == 0 ? 240 + few : few;
    const auto longest = random() % 3 == 0 ? 60'000U : 200U;
    for (int number = 1; number <= count; ++number) {
      EXPECT_TRUE(area.Set(KeyOf(number),
                           std::to_string(number) + ":" + std::string(random() % longest, 'x')));
      m_callsOf.push_back(m_disk.Size());
      m_bells.push_back(ReadFile(m_directory / "settings.bell"));
    }
  }

  /// The first thing wrong after a cut somewhere, or nothing.
  std::string Cut(Random& random) const {
    const std::size_t calls = random() % (m_disk.Size() + 1);
    const auto acknowledged = static_cast<int>(
        std::upper_bound(m_callsOf.begin(), m_callsOf.end(), calls) - m_callsOf.begin());
    Files files = m_disk.Replay(calls, random);
    const std::string bell = m_directory / "settings.bell";
    if (random() % 2 == 0 && !m_bells.empty()) {
      files[bell] = m_bells[random() % m_bells.size()];
    } else if (random() % 2 == 0) {
      files.erase(bell);
    }
    const TemporaryDirectory after(FastDirectory());
    WriteFiles(files, after.Path());
    g_errorLines.clear();
    return Judge(after, acknowledged) + g_errorLines;
  }

 private:
  static std::string Judge(const TemporaryDirectory& after, int acknowledged) {
    AreaOn area(after.Path());
    for (int number = acknowledged; number > 0 && number > acknowledged - KEYS; --number) {
      const std::string value = area.Get(KeyOf(number));
      const int found = NumberOf(value);
      if (found != number && found != acknowledged + 1) {
        return "lost " + std::to_string(number) + ", found " + value.substr(0, 20);
      }
    }
    const std::vector<SettingsChange> log = area.Log();
    for (std::size_t i = 1; i < log.size(); ++i) {
      if (NumberOf(std::get<std::string>(log[i].value)) !=
          NumberOf(std::get<std::string>(log[i - 1].value)) + 1) {
        return "a gap in the log after " + std::to_string(i);
      }
    }
    if (acknowledged > 0 &&
        (log.empty() || NumberOf(std::get<std::string>(log.back().value)) < acknowledged)) {
      return "the log ends early";
    }
    const bool works = area.Set("key/new", "new") && AreaOn(after.Path()).Get("key/new") == "new";
    return works ? "" : "not writable";
  }

  TemporaryDirectory m_directory;
  PowerCut m_disk;
  std::vector<std::size_t> m_callsOf;  // by acknowledged write
  std::vector<std::string> m_bells;
};

constexpr int CUTS = 20;

TEST(StoreDisk, PowerCutLosesNoAcknowledgedWrite) {
  ForEachSeed(ByTier(10, 25, 100), {}, [](Random& random) {
    const Recording recording(random, Durability::SYNCED);
    for (int cut = 0; cut < CUTS; ++cut) {
      EXPECT_EQ(recording.Cut(random), "") << "cut " << cut;
    }
  });
}

TEST(StoreDisk, PowerCutOfAStoreThatDoesNotSyncIsSeenToLoseWrites) {
  Random random(1);
  const Recording recording(random, Durability::UNSYNCED);
  int losses = 0;
  for (int cut = 0; cut < CUTS; ++cut) {
    losses += recording.Cut(random).empty() ? 0 : 1;
  }
  EXPECT_GT(losses, 0);
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
  AreaOn area(directory.Path());
  for (int number = 1; number <= writes; ++number) {
    const auto size = number % 10 == 0 ? 6'000U : 10U;
    area.Set(KeyOf(number), std::to_string(number) + ":" + std::string(size, 'x'));
  }
  return ReadFiles(directory.Path());
}

/// `keepsSize` for what is mapped: a file cut short under its readers ends them.
void Damage(std::string& content, bool keepsSize, Random& random) {
  constexpr std::size_t PAGE = 4096;
  // Headers are small and decide most.
  const auto somewhere = [&] {
    return random() %
           (random() % 2 == 0 ? content.size() : std::min<std::size_t>(128, content.size()));
  };
  switch (random() % (keepsSize ? 4 : 5)) {
    case 0:
      for (auto flips = 1 + random() % 8; flips > 0; --flips) {
        char& byte = content[somewhere()];
        byte = static_cast<char>(static_cast<unsigned char>(byte) ^ (1U << random() % 8));
      }
      break;
    case 1: {
      const std::size_t begin = somewhere() / PAGE * PAGE;
      const std::size_t size = std::min(PAGE, content.size() - begin);
      content.replace(begin, size, size, '\0');
      break;
    }
    case 2:
      for (std::size_t i = somewhere(), end = i + random() % 200; i < end && i < content.size();
           ++i) {
        content[i] = static_cast<char>(random());
      }
      break;
    case 3: {
      const std::string page = content.substr(somewhere() / PAGE * PAGE, PAGE);
      content.replace(somewhere() / PAGE * PAGE, page.size(), page).resize(content.size());
      break;
    }
    default:
      content.resize(random() % 4 == 0 ? 0 : somewhere());
  }
}

void OverwriteInPlace(const std::string& path, const std::string& content) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  EXPECT_EQ(pwrite(fd, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
  EXPECT_EQ(ftruncate(fd, static_cast<off_t>(content.size())), 0);
  close(fd);
}

TEST(StoreDisk, DamagedFileIsOpenedOrSetAside) {
  ForEachSeed(ByTier(400, 4000, 20'000), {}, [](Random& random) {
    const TemporaryDirectory directory(FastDirectory());
    static const Files used = UsedStore(120);
    WriteFiles(used, directory.Path());
    if (random() % 2 == 0) {
      // With the engine's log empty its pages count no more.
      Execute(directory / "settings.db", "PRAGMA wal_checkpoint(TRUNCATE)");
    }
    std::optional<AreaOn> area(std::in_place, directory.Path());
    const bool inUse = random() % 3 == 0;
    if (inUse) {
      area->Get(KeyOf(0));
    }
    const std::array<const char*, 5> names = {"settings.db", "settings.db", "settings.db-wal",
                                              "settings.db-wal", "settings.bell"};
    std::string name = names.at(random() % names.size());
    if (fs::file_size(directory / name) == 0) {
      name = "settings.db";
    }
    std::string content = ReadFile(directory / name);
    const std::size_t size = content.size();
    Damage(content, inUse && name == "settings.bell", random);
    content.resize(std::min(content.size(), size));
    OverwriteInPlace(directory / name, content);

    g_errorLines.clear();
    for (int key = 0; key < KEYS; ++key) {
      area->Get(KeyOf(key));
    }
    area->Log();
    EXPECT_TRUE(area->Set("key/new", "new")) << name;
    EXPECT_EQ(area->Get("key/new"), "new") << name;
    AreaOn other(directory.Path());
    other.Get("key/new");
    if (inUse && g_errorLines.find("locked") != std::string::npos) {
      // Its mode of locking is damaged; whoever has it open works on, and the next one repairs it.
      area.reset();
      area.emplace(directory.Path());
    }
    EXPECT_TRUE(other.Set("key/new", "newer")) << name;
    EXPECT_EQ(area->Get("key/new"), "newer") << name;
    for (int key = 0; key < KEYS; ++key) {
      EXPECT_NE(area->Get(KeyOf(key)), "(error)") << name;
    }
    bool isSetAside = false;
    for (const auto& file : fs::directory_iterator(directory.Path())) {
      isSetAside = isSetAside || file.path().string().find(".damaged-") != std::string::npos;
    }
    EXPECT_EQ(isSetAside, g_errorLines.find(" is damaged; it is kept as ") != std::string::npos)
        << g_errorLines;
  });
}

/// What is done while one call fails.
struct Scenario {
  const char* name;
  bool hasStore;
  int writes;
  std::size_t size;
  int stride;  // between the calls that fail
};

TEST(StoreDisk, CallThatFailsOnceFailsNoMoreThanItsSet) {
  const std::array<Scenario, 3> scenarios = {
      Scenario{"first write", false, 1, 10, 1}, Scenario{"next writes", true, 3, 100, 1},
      Scenario{"checkpoint", true, 25, 100'000, ByTier(37, 5, 1)}};
  const Files used = UsedStore(KEYS);
  int cases = 0;
  for (const Scenario& scenario : scenarios) {
    for (const int error : {ENOSPC, EIO, EACCES}) {
      bool hasFailed = true;
      for (int failing = 1; hasFailed; failing += scenario.stride, ++cases) {
        SCOPED_TRACE(std::string(scenario.name) + ", call " + std::to_string(failing) + ", error " +
                     std::to_string(error));
        const TemporaryDirectory directory(FastDirectory());
        if (scenario.hasStore) {
          WriteFiles(used, directory.Path());
        }
        const auto found = [&](const std::string& key) {
          return scenario.hasStore ? AreaOn(directory.Path()).Get(key) : "(none)";
        };
        const std::string other = found("key/1");
        std::string kept = found("key/0");
        AreaOn area(directory.Path());
        hasFailed = false;
        g_errorLines.clear();
        int calls = 0;
        std::string which;
        for (int write = 1; write <= scenario.writes; ++write) {
          const std::string value = std::to_string(write) + std::string(scenario.size, 'x');
          const bool isSet = [&] {
            const FileWatch watch([&](const FileCall& call) {
              const bool fails = ++calls == failing;
              if (fails) {
                which = call.path + " at " + std::to_string(call.offset);
              }
              hasFailed = hasFailed || fails;
              return fails ? error : 0;
            });
            return area.Set("key/0", value);
          }();
          EXPECT_TRUE(isSet || hasFailed);
          SCOPED_TRACE(std::string(which).append(g_errorLines));
          EXPECT_EQ(area.Get("key/0"), isSet ? value : kept);
          EXPECT_EQ(AreaOn(directory.Path()).Get("key/0"), isSet ? value : kept);
          kept = isSet ? value : kept;
        }
        EXPECT_TRUE(area.Set("key/0", "after"));
        EXPECT_EQ(AreaOn(directory.Path()).Get("key/0"), "after");
        EXPECT_EQ(AreaOn(directory.Path()).Get("key/1"), other);
      }
    }
  }
  std::cout << cases << " failing calls\n";
}

}  // namespace
}  // namespace ondaro::test
