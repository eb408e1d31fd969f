// What goes wrong around the store: damaged, read-only and full files, processes that die or stand
// still in the middle of a write. Every test has processes and a directory of its own.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "SettingsLimits.h"
#include "host/StoreFiles.h"
#include "host/StoreProcess.h"

namespace ondaro::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr auto BOUND = 5 * host::SETTINGS_LONGEST_WAIT;

class StoreFailure : public testing::Test {
 protected:
  fs::path State() const { return m_directory.Path(); }
  fs::path Database() const { return State() / "settings.db"; }
  fs::path Bell() const { return State() / "settings.bell"; }

  TemporaryDirectory m_directory;
};

TEST_F(StoreFailure, ValueOutlivesAKillRightAfterTheSetReturned) {
  for (int round = 0; round < 10; ++round) {
    const std::string value = "value-" + std::to_string(round);
    StoreProcess writer(State());
    ASSERT_EQ(writer.Ask("set db/kept " + value), "0");
    writer.Process().Kill();
    EXPECT_EQ(StoreProcess(State()).Ask("get db/kept"), value);
  }
}

TEST_F(StoreFailure, DurableKeysAreSyncedBeforeTheSetReturnsAndMemoryKeysAreNot) {
  StoreProcess writer(State());
  for (const char* key : {"db/synced", "memory/unsynced"})
    writer.Ask(std::string("set ") + key + " 0");
  const int before = std::stoi(writer.Ask("syncs"));
  ASSERT_EQ(writer.Ask("burst db/synced 10 x"), "0");
  const int after = std::stoi(writer.Ask("syncs"));
  EXPECT_GE(after - before, 10);
  ASSERT_EQ(writer.Ask("burst memory/unsynced 2000 x"), "0");
  EXPECT_EQ(std::stoi(writer.Ask("syncs")), after);
}

TEST_F(StoreFailure, WriterThatDiedInItsCommitLeavesTheStoreUsable) {
  StoreProcess other(State());
  ASSERT_EQ(other.Ask("subscribe db/key"), "0");
  ASSERT_EQ(other.Ask("set db/key before"), "0");
  {
    StoreProcess writer(State());
    ASSERT_EQ(writer.Ask("get db/key"), "before");
    writer.Ask("signal-at-sync " + std::to_string(SIGKILL));
    writer.Begin("set db/key dying");
    ASSERT_EQ(writer.Process().Wait(), -SIGKILL);
  }
  ASSERT_EQ(ReadBellState(Bell()) % 2, 1U) << "died too early or too late for this test";
  EXPECT_EQ(other.Ask("get db/key"), "before");
  EXPECT_EQ(other.Ask("set db/key after"), "0");
  EXPECT_EQ(ReadBellState(Bell()) % 2, 0U);
  EXPECT_EQ(other.Ask("get db/key"), "after");
  EXPECT_EQ(other.Change(), "db/key=before");
  EXPECT_EQ(other.Change(), "db/key=after");
}

TEST_F(StoreFailure, CommitOfAWriterThatDiedBeforeItsRingIsReadAndCalledBack) {
  StoreProcess other(State());
  ASSERT_EQ(other.Ask("subscribe db/key"), "0");
  ASSERT_EQ(other.Ask("set db/key before"), "0");
  ASSERT_EQ(other.Ask("get db/key"), "before");
  EXPECT_EQ(other.Change(), "db/key=before");

  const std::uint64_t settled = ReadBellState(Bell());
  WriteBellState(Bell(), settled + 1);
  Sql(Database(),
      "BEGIN; UPDATE item SET value='committed', seq=seq+1;"
      "INSERT INTO change SELECT seq, key, value FROM item; COMMIT");
  WriteBellState(Bell(), settled + 1);
  EXPECT_EQ(other.Change(), "db/key=committed");
  EXPECT_EQ(other.Ask("get db/key"), "committed");
  EXPECT_EQ(StoreProcess(State()).Ask("set db/key after"), "0");
  EXPECT_EQ(other.Change(), "db/key=after");
  EXPECT_EQ(other.Ask("get db/key"), "after");
}

TEST_F(StoreFailure, NoCallWaitsWithoutBoundForAWriterThatStandsStill) {
  StoreProcess other(State());
  ASSERT_EQ(other.Ask("set db/key before"), "0");
  StoreProcess stopped(State());
  stopped.Ask("signal-at-sync " + std::to_string(SIGSTOP));
  stopped.Begin("set db/key stopped");
  ASSERT_EQ(waitpid(stopped.Process().Pid(), nullptr, WUNTRACED), stopped.Process().Pid());

  auto start = Clock::now();
  EXPECT_EQ(other.Ask("get db/key"), "before");
  EXPECT_EQ(other.Ask("subscribe db/key"), "0");
  EXPECT_LT(Clock::now() - start, host::SETTINGS_LONGEST_WAIT);
  EXPECT_EQ(other.Ask("set db/key other"), "-1");
  EXPECT_LT(Clock::now() - start, BOUND);
  EXPECT_TRUE(other.HasLogged("locked"));

  stopped.Process().Signal(SIGCONT);
  EXPECT_EQ(stopped.Reply(), "0");
  EXPECT_EQ(other.Change(), "db/key=stopped");
  EXPECT_EQ(other.Ask("set db/key other"), "0");
}

TEST_F(StoreFailure, OpeningWaitsNoLongerThanAnyCall) {
  ASSERT_EQ(StoreProcess(State()).Ask("set db/key value"), "0");
  const int fd = open(Bell().c_str(), O_RDWR | O_CLOEXEC);
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  ASSERT_EQ(fcntl(fd, F_OFD_SETLK, &lock), 0);
  StoreProcess late(State());
  const auto start = Clock::now();
  EXPECT_EQ(late.Ask("set db/key late"), "-1");
  EXPECT_LT(Clock::now() - start, BOUND);
  close(fd);
  EXPECT_EQ(late.Ask("get db/key"), "value");
}

TEST_F(StoreFailure, FileThatIsNoDatabaseIsSetAside) {
  const std::string garbage(5000, 'g');
  std::ofstream(Database(), std::ios::binary) << garbage;
  StoreProcess process(State());
  EXPECT_EQ(process.Ask("get db/key"), "(null)");
  EXPECT_TRUE(process.HasLogged("damaged"));
  EXPECT_EQ(process.Ask("set db/key value"), "0");
  EXPECT_EQ(process.Ask("get db/key"), "value");
  EXPECT_EQ(ReadFile(FindFile(State(), "settings.db.damaged-")), garbage);
}

TEST_F(StoreFailure, DamageInMidLifeMovesEveryProcessToTheNewDatabase) {
  StoreProcess one(State());
  StoreProcess subscriber(State());
  ASSERT_EQ(subscriber.Ask("subscribe db/key"), "0");
  ASSERT_EQ(one.Ask("set db/key before"), "0");
  EXPECT_EQ(subscriber.Change(), "db/key=before");
  ASSERT_EQ(subscriber.Ask("get db/key"), "before");

  const std::string garbage(20000, 'g');
  for (const char* suffix : {"", "-wal"}) {
    std::fstream(Database().string() + suffix, std::ios::binary | std::ios::in | std::ios::out)
        << garbage;
  }
  StoreProcess writer(State());
  EXPECT_EQ(writer.Ask("set db/key after"), "0");
  EXPECT_EQ(subscriber.Change(), "db/key=after");
  EXPECT_EQ(subscriber.Ask("get db/key"), "after");
  EXPECT_EQ(one.Ask("get db/key"), "after");
  EXPECT_EQ(one.Ask("set db/key again"), "0");
  EXPECT_EQ(subscriber.Change(), "db/key=again");
  EXPECT_EQ(writer.Ask("get db/key"), "again");
  EXPECT_EQ(ReadFile(FindFile(State(), "settings.db.damaged-")).substr(0, garbage.size()), garbage);
}

TEST_F(StoreFailure, DatabaseWithoutItsTablesIsSetAside) {
  ASSERT_EQ(StoreProcess(State()).Ask("set db/key before"), "0");
  Sql(Database(), "DROP TABLE item");
  StoreProcess process(State());
  EXPECT_EQ(process.Ask("set db/key after"), "0");
  EXPECT_EQ(process.Ask("get db/key"), "after");
  EXPECT_FALSE(FindFile(State(), "settings.db.damaged-").empty());
}

TEST_F(StoreFailure, DamagedBellIsMadeAnew) {
  ASSERT_EQ(StoreProcess(State()).Ask("burst db/key 3 old"), "0");
  std::ofstream(Bell(), std::ios::binary) << std::string(1000, 'g');
  StoreProcess process(State());
  StoreProcess other(State());
  EXPECT_EQ(process.Ask("subscribe db/key"), "0");
  EXPECT_EQ(process.Ask("get db/key"), "old-2");
  EXPECT_EQ(other.Ask("set db/key new"), "0");
  EXPECT_EQ(process.Change(), "db/key=new");
  EXPECT_EQ(process.Ask("get db/key"), "new");
}

class ReadOnly : public StoreFailure, public testing::WithParamInterface<const char*> {};

TEST_P(ReadOnly, IsReadButNotWrittenAndLosesNothing) {
  ASSERT_EQ(StoreProcess(State()).Ask("set db/key kept"), "0");
  const fs::path target = State() / GetParam();
  const fs::perms before = fs::status(target).permissions();
  constexpr fs::perms WRITE =
      fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write;
  fs::permissions(target, WRITE, fs::perm_options::remove);

  StoreProcess process(State());
  ASSERT_EQ(process.Ask("drop-capabilities"), "0");
  EXPECT_EQ(process.Ask("get db/key"), "kept");
  if (fs::is_directory(target)) {
    // The files in it may still be written; only new ones cannot be made.
    EXPECT_EQ(process.Ask("set memory/key value"), "-1");
  } else {
    EXPECT_EQ(process.Ask("set db/key lost"), "-1");
  }
  EXPECT_TRUE(process.HasLogged("platform_settings_set_string"));

  fs::permissions(target, before);
  EXPECT_EQ(process.Ask("get db/key"), "kept");
  EXPECT_EQ(process.Ask("set db/key written"), "0");
  EXPECT_EQ(process.Ask("set memory/key value"), "0");
  EXPECT_EQ(StoreProcess(State()).Ask("get db/key"), "written");
}

INSTANTIATE_TEST_SUITE_P(Targets, ReadOnly, testing::Values(".", "settings.db", "settings.bell"));

TEST_F(StoreFailure, FullDiskFailsTheWriteAndLosesNothing) {
  StoreProcess process(State());
  ASSERT_EQ(process.Ask("set db/key kept"), "0");
  ASSERT_EQ(process.Ask("set db/other kept"), "0");
  ASSERT_EQ(process.Ask("limit-files 100000"), "0");
  EXPECT_EQ(process.Ask("set-large db/key 200000"), "-1");
  EXPECT_TRUE(process.HasLogged("db/key"));
  EXPECT_EQ(process.Ask("get db/key"), "kept");
  EXPECT_EQ(StoreProcess(State()).Ask("get db/key"), "kept");

  ASSERT_EQ(process.Ask("limit-files 0"), "0");
  EXPECT_EQ(process.Ask("set-large db/key 200000"), "0");
  EXPECT_EQ(StoreProcess(State()).Ask("get db/key"), std::string(200000, 'x'));
  EXPECT_EQ(process.Ask("get db/other"), "kept");
}

TEST_F(StoreFailure, FullDiskAtTheVeryFirstWriteIsNoMoreThanAnError) {
  StoreProcess process(State());
  ASSERT_EQ(process.Ask("limit-files 1"), "0");
  EXPECT_EQ(process.Ask("set db/key lost"), "-1");
  EXPECT_EQ(process.Ask("get db/key"), "(null)");
  ASSERT_EQ(process.Ask("limit-files 0"), "0");
  EXPECT_EQ(process.Ask("set db/key value"), "0");
  EXPECT_EQ(process.Ask("get db/key"), "value");
}

TEST_F(StoreFailure, StoreWorksUntilTheProcessHasEnded) {
  StoreProcess process(State());
  ASSERT_EQ(process.Ask("set-at-exit"), "0");
  ASSERT_EQ(process.Ask("subscribe db/before-exit"), "0");
  ASSERT_EQ(process.Ask("set db/before-exit late"), "0");
  process.Process().CloseInput();
  EXPECT_EQ(process.Process().Wait(), 0);
  EXPECT_EQ(StoreProcess(State()).Ask("get db/exit"), "late");
}

TEST_F(StoreFailure, LogIsKeptForALivingFollowerOnlyAndWithinItsCap) {
  const auto logged = [this] {
    return Sql(FindFile(State(), "memory.db"), "SELECT count(*) FROM change");
  };
  constexpr int BATCH = host::SETTINGS_TRIM_BATCH;
  StoreProcess writer(State());
  const std::string burst = "burst memory/key " + std::to_string(2 * BATCH) + " x";
  ASSERT_EQ(writer.Ask(burst), "0");
  EXPECT_LE(logged(), BATCH);

  StoreProcess follower(State());
  ASSERT_EQ(follower.Ask("subscribe memory/other"), "0");
  follower.Process().Freeze();
  ASSERT_EQ(writer.Ask(burst), "0");
  EXPECT_GE(logged(), 2 * BATCH);
  follower.Process().Kill();
  ASSERT_EQ(writer.Ask(burst), "0");
  EXPECT_LE(logged(), BATCH);
}

}  // namespace
}  // namespace ondaro::test
