// The store in many processes at once: writers that are killed, watchers that stand still. Writers
// count up, each on a key of its own, so every loss, repetition and change of order shows.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "FileCalls.h"
#include "HostSupport.h"
#include "StoreArea.h"
#include "platform/SettingsStore.h"
#include "support/ProcessUse.h"
#include "support/Tier.h"
#include "support/WaitUntil.h"

namespace ondaro::test {
namespace {

constexpr std::size_t WRITERS = 3;
constexpr std::size_t MOST_WATCHERS = 8;

/// How far the writers may be ahead of a watcher that is to miss nothing; the log keeps 4096.
constexpr int LEAD = 3000;

struct Watched {
  std::array<std::atomic<int>, WRITERS> seen;
  std::atomic<int> total;
  std::atomic<int> missed;
  std::atomic<int> wrong;  // out of order, or twice
  std::atomic<bool> isReady;
  std::atomic<bool> isBehind;  // not waited for, and may miss
};

/// What the processes of one test tell each other.
struct Board {
  std::array<std::atomic<int>, WRITERS> acknowledged;
  std::array<Watched, MOST_WATCHERS> watchers;
  std::atomic<int> lost;
  std::atomic<int> goal;  // of all writes
  std::atomic<bool> mustEnd;
};

/// 0 for a missing key.
int Number(const std::string& key) {
  int number = 0;
  platform_settings_get_int(key.c_str(), &number);
  return number;
}

class Processes : public testing::Test {
 protected:
  explicit Processes(std::string area)
      : m_area(std::move(area)),
        m_board(new (mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Board{}) {
    StateDirectory();
  }
  ~Processes() override {
    m_writers.clear();
    m_watchers.clear();
    munmap(m_board, sizeof(Board));
  }

  std::string Key(std::size_t writer) const { return m_area + "/writer" + std::to_string(writer); }
  int Stored(std::size_t writer) const { return Number(Key(writer)); }
  /// A write that was not acknowledged may be there or not.
  bool IsKept(std::size_t writer) const {
    const int beyond = Stored(writer) - m_board->acknowledged.at(writer);
    return beyond == 0 || beyond == 1;
  }
  int Written() const {
    return std::accumulate(m_board->acknowledged.begin(), m_board->acknowledged.end(), 0);
  }

  /// Counts up while less than the goal is written, until it is killed: at a call on a file, where
  /// a number of one is given.
  void StartWriter(std::size_t writer, int killedAt = 0) {
    m_writers.at(writer) = std::make_unique<Child>([=] {
      alarm(0);
      int calls = 0;
      const FileWatch watch(
          [&](const FileCall&) { return ++calls == killedAt ? raise(SIGKILL) : 0; });
      std::atomic<int>& acknowledged = m_board->acknowledged.at(writer);
      int number = Stored(writer);
      m_board->lost += IsKept(writer) ? 0 : 1;
      for (acknowledged = number;; acknowledged = number) {
        while (Written() >= m_board->goal || IsWatcherFarBehind()) {
          usleep(100);
        }
        if (platform_settings_set_int(Key(writer).c_str(), ++number) != 0) {
          _exit(1);
        }
      }
    });
  }

  void StartWatchers(std::size_t count) {
    for (std::size_t watcher = 0; watcher < count; ++watcher) {
      m_watchers.push_back(std::make_unique<Child>([=] { Watch(m_board->watchers.at(watcher)); }));
      EXPECT_TRUE(WaitUntil([&] { return m_board->watchers.at(watcher).isReady.load(); }));
    }
  }

  /// Every watcher ends with what the store holds, having seen all before it in order.
  void ExpectAllSeen() {
    for (std::size_t watcher = 0; watcher < m_watchers.size(); ++watcher) {
      const Watched& watched = m_board->watchers.at(watcher);
      for (std::size_t writer = 0; writer < WRITERS; ++writer) {
        EXPECT_TRUE(WaitUntil([&] { return watched.seen.at(writer) == Stored(writer); }))
            << "watcher " << watcher << " ends with " << watched.seen.at(writer) << " of "
            << Stored(writer);
      }
      EXPECT_EQ(watched.wrong, 0) << "watcher " << watcher;
      EXPECT_TRUE(watched.isBehind || watched.missed == 0) << "watcher " << watcher;
    }
    m_board->mustEnd = true;
    for (const auto& watcher : m_watchers) {
      EXPECT_EQ(watcher->Wait(), 0);
    }
  }

  const std::string m_area;
  Board* const m_board;
  std::vector<std::unique_ptr<Child>> m_writers{WRITERS};
  std::vector<std::unique_ptr<Child>> m_watchers;

 private:
  bool IsWatcherFarBehind() const {
    return std::any_of(
        m_board->watchers.begin(), m_board->watchers.end(), [&](const Watched& watched) {
          return watched.isReady && !watched.isBehind && Written() - watched.total > LEAD;
        });
  }

  static void Changed(platform_settings_node* node, void* userData) {
    auto& watched = *static_cast<Watched*>(userData);
    const std::string name = platform_settings_node_name(node);
    std::atomic<int>& seen = watched.seen.at(static_cast<std::size_t>(name.back() - '0'));
    const int number = platform_settings_node_int(node);
    watched.wrong += number <= seen ? 1 : 0;
    watched.missed += number > seen + 1 ? 1 : 0;
    watched.total += number - seen;
    seen = number;
  }

  void Watch(Watched& watched) const {
    alarm(0);
    for (std::size_t writer = 0; writer < WRITERS; ++writer) {
      if (platform_settings_subscribe(Key(writer).c_str(), &Changed, &watched) != 0) {
        _exit(1);
      }
    }
    watched.isReady = true;
    WaitUntil([&] { return m_board->mustEnd.load(); }, std::chrono::hours(2));
  }
};

struct Kills : Processes {
  Kills() : Processes("db") {}
};

TEST_F(Kills, LoseNoAcknowledgedWriteAndNoChange) {
  constexpr unsigned CALLS_IN_A_LIFE = 250;
  const int kills = ByTier(100, 500, 2000);
  std::mt19937 random(1);
  m_board->goal = 1 << 30;
  StartWatchers(2);
  // Half of them die at a call on a file, unless they are killed before, half at any instant.
  const auto start = [&](std::size_t writer) {
    StartWriter(writer, random() % 2 == 0 ? 1 + static_cast<int>(random() % CALLS_IN_A_LIFE) : 0);
  };
  for (std::size_t writer = 0; writer < WRITERS; ++writer) {
    start(writer);
  }
  for (int kill = 0; kill < kills; ++kill) {
    const std::size_t writer = random() % WRITERS;
    usleep(static_cast<useconds_t>(random() % 10'000));
    ::kill(m_writers.at(writer)->Pid(), SIGKILL);
    ASSERT_EQ(m_writers.at(writer)->Wait(), SIGKILL);
    start(writer);
  }
  m_writers = std::vector<std::unique_ptr<Child>>(WRITERS);  // kills the rest
  for (std::size_t writer = 0; writer < WRITERS; ++writer) {
    m_board->lost += IsKept(writer) ? 0 : 1;
  }
  EXPECT_EQ(m_board->lost, 0);
  ExpectAllSeen();
  std::cout << kills << " kills, " << Written() << " writes\n";
}

struct Soak : Processes {
  Soak() : Processes("memory") {}

  std::vector<ProcessUse> UseOfAll() const {
    std::vector<ProcessUse> all;
    for (const auto* children : {&m_writers, &m_watchers}) {
      for (const auto& child : *children) {
        all.emplace_back(child->Pid());
      }
    }
    return all;
  }
};

TEST_F(Soak, KeepsEveryChangeMemoryAndDescriptors) {
  constexpr long MOST_GROWTH = 800;  // kilobytes
  const int changes = ByTier(30'000, 150'000, 1'000'000);
  const auto untilWritten = [&](int count) {
    ASSERT_TRUE(WaitUntil([&] { return Written() >= count; }, std::chrono::hours(1)));
  };
  StartWatchers(MOST_WATCHERS);
  m_board->goal = changes;
  for (std::size_t writer = 0; writer < WRITERS; ++writer) {
    StartWriter(writer);
  }
  untilWritten(changes / 5);
  const std::vector<ProcessUse> before = UseOfAll();

  // One stands still for less than the log keeps, another for more.
  kill(m_watchers[0]->Pid(), SIGSTOP);
  untilWritten(m_board->watchers[0].total + LEAD * 9 / 10);
  kill(m_watchers[0]->Pid(), SIGCONT);
  m_board->watchers[1].isBehind = true;
  kill(m_watchers[1]->Pid(), SIGSTOP);
  untilWritten(changes * 3 / 5);
  kill(m_watchers[1]->Pid(), SIGCONT);
  untilWritten(changes);
  const std::vector<ProcessUse> after = UseOfAll();
  long growth = 0;
  for (std::size_t i = 0; i < before.size(); ++i) {
    EXPECT_EQ(after[i].descriptors, before[i].descriptors);
    growth = std::max(growth, after[i].kilobytes - before[i].kilobytes);
  }
  EXPECT_TRUE(SANITIZED || growth < MOST_GROWTH) << growth;
  ExpectAllSeen();
  EXPECT_GT(m_board->watchers[1].missed, 0) << "it was not behind";
  std::cout << Written() << " changes, " << MOST_WATCHERS << " watchers, the largest growth "
            << growth << " kB, " << after[0].descriptors << " descriptors\n";
}

// In between nothing tells of the write; what is remembered of the key must end with it all the
// same.
TEST(Killed, AfterItsCommitAWriterIsSeenByAllOrNone) {
  StateDirectory();
  const char* const key = "memory/killed";
  ASSERT_EQ(platform_settings_set_int(key, 1), 0);
  bool isThrough = false;
  for (int call = 1; !isThrough; ++call) {
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(20)) {
      Number(key);  // until it is remembered
    }
    isThrough =
        RunInChild([&] {
          const FileWatch watch([&](const FileCall&) { return --call == 0 ? raise(SIGKILL) : 0; });
          platform_settings_set_int(key, Number(key) + 1);
          _exit(0);
        }) == 0;
    const int seen = Number(key);
    EXPECT_EQ(RunInChild([&] { _exit(Number(key) == seen ? 0 : 1); }), 0) << call;
  }
}

TEST(Writers, AreLetThroughBesideOneThatWritesInARow) {
  constexpr int WRITES = 50;
  StateDirectory();
  const FileWatch slowDisk(
      [](const FileCall& call) { return call.kind == FileCall::Kind::SYNC ? usleep(3000) : 0; });
  const Child other([] {
    for (int number = 1; platform_settings_set_int("db/in-a-row", number) == 0; ++number) {
    }
  });
  const auto written = [] { return Number("db/in-a-row"); };
  EXPECT_TRUE(WaitUntil([&] { return written() > 0; }));
  const int before = written();
  for (int write = 0; write < WRITES; ++write) {
    EXPECT_EQ(platform_settings_set_int("db/between", write), 0);
  }
  EXPECT_LT(written() - before, 2 * WRITES);
}

TEST(Syncs, ComeBeforeASetOfADurableKeyReturnsAndForNoOther) {
  const TemporaryDirectory directory(FastDirectory());
  StoreArea area(directory.Path());
  for (const char* key : {"db/synced", "memory/unsynced"}) {
    ASSERT_TRUE(area.Set(key, "0"));
    int syncs = 0;
    const FileWatch watch([&](const FileCall& call) {
      syncs += call.kind == FileCall::Kind::SYNC ? 1 : 0;
      return 0;
    });
    for (int write = 1; write <= 5; ++write) {
      EXPECT_TRUE(area.Set(key, std::to_string(write)));
      EXPECT_TRUE(*key == 'd' ? syncs >= write : syncs == 0) << key << ": " << syncs;
    }
  }
}

}  // namespace
}  // namespace ondaro::test
