// What has hurt the host backend once, a row each. A row runs in a process of its own, with a state
// directory of its own; the processes that it starts are others of the same store.

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <thread>

#include "HostSupport.h"
#include "platform/ContentDecryptionModule.h"
#include "platform/Log.h"
#include "platform/SettingsStore.h"
#include "support/ProcessUse.h"
#include "support/WaitUntil.h"

namespace ondaro::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

std::string Get(const std::string& key) {
  const std::unique_ptr<char, decltype(&std::free)> value(platform_settings_get_string(key.c_str()),
                                                          &std::free);
  return value != nullptr ? value.get() : "(none)";
}

bool Set(const std::string& key, const std::string& value) {
  return platform_settings_set_string(key.c_str(), value.c_str()) == 0;
}

auto Module() {
  return std::unique_ptr<eme::IEME, decltype(&eme::IEME::destroy)>(
      eme::IEME::create(nullptr, "com.widevine.alpha", false, eme::CDM_MODEL_ONDARO),
      &eme::IEME::destroy);
}

/// A process that ends as programs do, so that what it leaves is complete.
template <typename Body>
void Elsewhere(Body body) {
  EXPECT_EQ(RunInChild([&] {
              body();
              std::exit(testing::Test::HasFailure() ? 1 : 0);
            }),
            0);
}

void SetElsewhere(const std::string& key, const std::string& value) {
  Elsewhere([&] { EXPECT_TRUE(Set(key, value)); });
}

std::vector<std::string> g_seen;

void Watch(const std::string& key) {
  const auto note = [](platform_settings_node* node, void*) {
    g_seen.emplace_back(platform_settings_node_string(node));
  };
  EXPECT_EQ(platform_settings_subscribe(key.c_str(), note, nullptr), 0);
}

bool Sees(const std::string& value, milliseconds limit = PATIENCE) {
  return WaitUntil([&] { return !g_seen.empty() && g_seen.back() == value; }, limit);
}

std::uintmax_t SizeOf(const std::string& directory) {
  std::uintmax_t size = 0;
  for (const auto& file : fs::directory_iterator(directory)) {
    size += file.is_regular_file() ? file.file_size() : 0;
  }
  return size;
}

/// Another user, without the rights of root.
void Become(uid_t user, gid_t group) {
  EXPECT_EQ(setgroups(0, nullptr) + setgid(group) + setuid(user), 0);
}

/// How often the reverse of a text stands in the memory of this process.
int CountInMemory(const std::string& reversed) {
  int count = 0;
  std::ifstream maps("/proc/self/maps");
  std::vector<std::pair<off_t, off_t>> ranges;
  for (std::string line; std::getline(maps, line);) {
    unsigned long from = 0;
    unsigned long to = 0;
    char rights[5] = "";
    std::sscanf(line.c_str(), "%lx-%lx %4s", &from, &to, rights);
    if (std::string(rights) == "rw-p" && to - from < 1UL << 30) {
      ranges.emplace_back(from, to);
    }
  }
  const int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
  for (const auto& [from, to] : ranges) {
    std::vector<char> bytes(static_cast<std::size_t>(to - from));
    const ssize_t size = pread(memory, bytes.data(), bytes.size(), from);
    const auto end = bytes.begin() + std::max<ssize_t>(0, size);
    for (auto at = bytes.begin();
         (at = std::search(at, end, reversed.rbegin(), reversed.rend())) != end; ++at) {
      ++count;
    }
  }
  close(memory);
  return count;
}

struct Row {
  const char* name;
  void (*body)(const std::string& state);
};

void ReadsDeleteNothing(const std::string& state) {
  const TemporaryDirectory elsewhere;
  for (const std::string& kept : {state + "/run/boot", elsewhere / "kept"}) {
    fs::create_directories(kept);
  }
  fs::create_symlink(elsewhere.Path(), state + "/run/link");
  EXPECT_EQ(Get("memory/key"), "(none)");
  EXPECT_TRUE(fs::exists(state + "/run/boot") && fs::exists(state + "/run/link/kept"));
}

void EndedContextsLeaveNothing(const std::string&) {
  Watch("memory/shared");
  std::atomic<bool> mustEnd{false};
  std::thread writer([&] {
    while (!mustEnd) {
      Set("memory/shared", "value");
    }
  });
  for (int round = 0; round < 200; ++round) {
    std::thread([] {
      GMainContext* context = g_main_context_new();
      g_main_context_push_thread_default(context);
      const auto ignore = [](platform_settings_node*, void*) {};
      EXPECT_EQ(platform_settings_subscribe("memory/shared", ignore, nullptr), 0);
      g_main_context_pop_thread_default(context);
      g_main_context_unref(context);
    }).join();
    g_main_context_iteration(nullptr, FALSE);  // not for as long as something is written
  }
  mustEnd = true;
  writer.join();
}

void ClosedStreamsStayClosed(const std::string& state) {
  for (int stream = 0; stream < 3; ++stream) {
    close(stream);
  }
  Watch("db/key");
  std::string id;
  const auto module = Module();
  module->getStringProperty("getSystemId", " ", id, "");
  platform_settings_set_string("db/key", nullptr);  // an error line
  EXPECT_TRUE(Set("db/key", "value") && Sees("value"));
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    const std::string file = fs::read_symlink(entry.path(), ignored);
    const bool isOwn = file.find(state) == 0 || file.find("inotify") != std::string::npos;
    EXPECT_FALSE(isOwn && std::stoi(entry.path().filename()) < 3) << file;
  }
  EXPECT_EQ(fs::file_size(state + "/settings.bell"), 8U);
}

void BellHoldsNothing(const std::string& state) {
  const std::string bell = state + "/settings.bell";
  EXPECT_TRUE(Set("db/key", "first"));
  const std::string old = ReadFile(bell);
  Watch("db/key");
  const std::vector<std::function<void()>> harms = {
      [&] { fs::resize_file(bell, 0); },
      [&] { WriteFile(bell, std::string(4096, '\xff')); },
      [&] { fs::remove(bell); },
      [&] {
        fs::remove(bell);
        WriteFile(bell, old);
      },
      [&] {},
  };
  for (std::size_t harm = 0; harm < harms.size(); ++harm) {
    Get("db/key");
    std::this_thread::sleep_for(milliseconds(10));  // lets it be remembered, by a clock's tick
    Get("db/key");
    harms[harm]();
    const std::string value = std::to_string(harm);
    SetElsewhere("db/key", value);
    WriteFile(bell, harm + 1 == harms.size() ? old : ReadFile(bell));
    EXPECT_TRUE(WaitUntil([&] { return Get("db/key") == value; }, milliseconds(1000))) << harm;
    EXPECT_TRUE(Sees(value)) << harm;
    EXPECT_TRUE(Set("db/own", value) && Get("db/own") == value) << harm;
  }
  EXPECT_EQ(g_seen, (std::vector<std::string>{"0", "1", "2", "3", "4"}));
}

void PathIsTheTruth(const std::string& state) {
  const std::string file = state + "/settings.db";
  const std::string copy = state + "-copy";
  SetElsewhere("db/key", "copied");
  fs::copy(state, copy, fs::copy_options::recursive);
  for (const char* key : {"db/key", "db/new"}) {
    SetElsewhere(key, "later");
    std::this_thread::sleep_for(milliseconds(10));  // lets it be remembered, by a clock's tick
    EXPECT_EQ(Get(key), "later");
  }
  WriteFile(file, ReadFile(copy + "/settings.db"));
  EXPECT_TRUE(WaitUntil([] { return Get("db/key") == "copied"; }, milliseconds(1000)))
      << "of one that has only read";
  EXPECT_EQ(Get("db/new"), "(none)");
  const std::vector<std::pair<const char*, std::function<void()>>> changes = {
      {"(none)", [&] { fs::remove_all(state); }},
      {"(none)", [&] { fs::rename(state, state + "-moved"); }},
      {"copied",
       [&] {
         fs::remove_all(state);
         fs::copy(copy, state, fs::copy_options::recursive);
       }},
      {"copied",
       [&] {
         fs::copy(copy + "/settings.db", state + "/new");
         fs::rename(state + "/new", file);
       }},
      {"copied", [&] { WriteFile(file, ReadFile(copy + "/settings.db")); }},
      {"before", [&] { fs::remove(file + "-shm"); }},
  };
  for (std::size_t change = 0; change < changes.size(); ++change) {
    const std::string value = std::to_string(change);
    g_seen.clear();
    Watch("db/watched");
    EXPECT_TRUE(Set("db/key", "before"));
    Get("db/key");
    changes[change].second();
    if (change % 2 == 0) {
      EXPECT_TRUE(Set("db/own", value)) << change;
      Elsewhere([&] { EXPECT_EQ(Get("db/own"), value) << change; });
    }
    EXPECT_TRUE(
        WaitUntil([&] { return Get("db/key") == changes[change].first; }, milliseconds(1000)))
        << change;
    SetElsewhere("db/watched", value);
    EXPECT_TRUE(Sees(value, milliseconds(1000))) << change;
  }
  EXPECT_NE(ReadFile(state + "-log").find("another file"), std::string::npos);
  fs::remove_all(copy);
  fs::remove_all(state + "-moved");
}

void OneFileHoldsEverything(const std::string& state) {
  const std::string file = state + "/settings.db";
  const auto values = [] {
    std::string all;
    for (int key = 0; key < 10; ++key) {
      all += Get("db/" + std::to_string(key));
    }
    return all;
  };
  const auto fill = [](const std::string& value) {
    for (int key = 0; key < 10; ++key) {
      EXPECT_TRUE(Set("db/" + std::to_string(key), value));
    }
  };
  Elsewhere([&] { fill("a"); });
  EXPECT_FALSE(fs::exists(file + "-wal"));
  const std::string copy = ReadFile(file);
  RunInChild([&] {
    fill("b");
    kill(getpid(), SIGKILL);
  });
  EXPECT_TRUE(fs::exists(file + "-wal"));
  WriteFile(file, copy);
  Elsewhere([&] { EXPECT_EQ(values(), "aaaaaaaaaa"); });
}

void DirectoryDecidesWhoMay(const std::string& state) {
  constexpr uid_t DAEMON = 4001;
  constexpr gid_t GROUP = 4000;
  for (const bool isShared : {false, true}) {
    fs::remove_all(state);
    fs::create_directory(state);
    EXPECT_EQ(chown(state.c_str(), DAEMON, GROUP) + chmod(state.c_str(), isShared ? 02770 : 0755),
              0);
    const Child daemon([&] {
      Become(DAEMON, GROUP);
      EXPECT_TRUE(Set("db/key", "daemon's"));
      for (const auto& entry : fs::directory_iterator(state)) {
        struct stat status {};
        stat(entry.path().c_str(), &status);
        EXPECT_EQ(status.st_mode & 0777U, isShared ? 0660U : 0600U) << entry.path();
      }
      Watch("db/back");
      Set("db/ready", "yes");
      EXPECT_TRUE(Sees(isShared ? "application's" : "root's"));
      Set("db/ready", testing::Test::HasFailure() ? "failed" : "done");
      pause();
    });
    EXPECT_TRUE(WaitUntil([] { return Get("db/ready") == "yes"; }));
    // The group may all or nothing, the rest nothing; root may, and changes nothing for the others.
    EXPECT_TRUE(Get("db/key") == "daemon's" && (isShared || Set("db/back", "root's")));
    for (const gid_t group : {GROUP, GROUP + 1}) {
      Elsewhere([&] {
        Become(DAEMON + 1, group);
        const bool may = isShared && group == GROUP;
        EXPECT_EQ(Get("db/key") == "daemon's", may);
        EXPECT_EQ(Set("db/back", "application's"), may);
      });
    }
    EXPECT_TRUE(WaitUntil([] { return Get("db/ready") == "done"; }));
  }
  // What is there follows the directory, whether its owner opens it or root.
  EXPECT_EQ(chmod(state.c_str(), 0755), 0);
  Elsewhere([] { EXPECT_EQ(Get("db/key"), "daemon's"); });
  struct stat status {};
  EXPECT_EQ(stat((state + "/settings.db").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

void NoLinkIsFollowed(const std::string& state) {
  const TemporaryDirectory outside;
  WriteFile(outside / "file", "kept");
  fs::create_directory(outside / "cdm");
  for (const std::string name : {"settings.db", "settings.bell", "settings.db-wal", "cdm"}) {
    fs::remove_all(state);
    fs::create_directory(state);
    fs::create_symlink(outside / (name == "cdm" ? "cdm" : "file"), fs::path(state) / name);
    Elsewhere([&] {
      std::string id;
      const auto module = Module();
      EXPECT_NE(name == "cdm" ? module->getStringProperty("getSystemId", " ", id, "") == 0
                              : Set("db/key", "value"),
                true)
          << name;
    });
    EXPECT_EQ(ReadFile(outside / "file"), "kept") << name;
    EXPECT_TRUE(fs::is_empty(outside / "cdm"));
  }
}

void DirectoryIsFoundOnce(const std::string& state) {
  chdir(fs::path(state).parent_path().c_str());
  setenv("ONDARO_HOST_STATE", fs::path(state).filename().c_str(), 1);
  EXPECT_TRUE(Set("db/key", "value"));
  chdir("/");
  EXPECT_EQ(Get("host/state-directory"), state);
  EXPECT_FALSE(Set("host/state-directory", "elsewhere"));
  RunInChild([] {});  // has it opened anew
  EXPECT_EQ(Get("db/key"), "value");
  // Without the variable the user decides, not the environment.
  std::string homes[2];
  for (const bool hasHome : {false, true}) {
    const TemporaryDirectory answer;
    RunInChild([&] {
      const std::string self = "/proc/self/exe";
      clearenv();
      hasHome ? setenv("HOME", "/nonexistent", 1) : 0;
      execl(self.c_str(), "tell", "--tell", (answer / "file").c_str(), nullptr);
    });
    homes[hasHome ? 1 : 0] = ReadFile(answer / "file");
  }
  EXPECT_EQ(homes[0], homes[1]);
  EXPECT_EQ(homes[0].front(), '/');
}

void LogIsBoundInBytes(const std::string& state) {
  constexpr std::size_t MOST = 64 << 20;
  Watch("memory/small");
  Elsewhere([&] {
    const std::string large(8 << 20, 'x');
    for (int write = 0; write < 20; ++write) {
      EXPECT_TRUE(Set("memory/large", large + std::to_string(write)));
      EXPECT_TRUE(Set("memory/" + std::to_string(write % 2), large.substr(0, 1 << 20)));
    }
    EXPECT_LT(SizeOf(state), MOST);
    EXPECT_TRUE(Set("memory/small", "end"));
  });
  const ProcessUse before(getpid());
  EXPECT_TRUE(Sees("end"));
  EXPECT_TRUE(SANITIZED || ProcessUse(getpid()).kilobytes - before.kilobytes < 8 << 10);
}

void StoppedRecoveryHoldsNobodyLong(const std::string& state) {
  RunInChild([] {
    Set("db/key", "value");
    kill(getpid(), SIGKILL);
  });
  const Child stopped([&] {
    const int shm = open((state + "/settings.db-shm").c_str(), O_RDWR | O_CLOEXEC);
    for (const off_t byte : {121, 122, 128}) {  // that of who recovers, and of who makes the file
      struct flock lock = {};
      lock.l_type = F_WRLCK;
      lock.l_start = byte;
      lock.l_len = 1;
      fcntl(shm, F_SETLK, &lock);
    }
    WriteFile(state + "-locked", "");
    pause();
  });
  EXPECT_TRUE(WaitUntil([&] { return fs::exists(state + "-locked"); }));
  for (int read = 0; read < 2; ++read) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Get("db/key"), "(none)");
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(SANITIZED ? 4000 : 2500));
  }
  fs::remove(state + "-locked");
}

void LimitsFailCallsOnly(const std::string& state) {
  EXPECT_TRUE(Set("db/key", "before"));
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit low{100, limit.rlim_max};
  setrlimit(RLIMIT_FSIZE, &low);
  EXPECT_FALSE(Set("db/key", "after"));
  setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_TRUE(Get("db/key") == "before" && Set("db/key", "after"));

  fs::create_directory(state + "/cdm");
  EXPECT_EQ(mkfifo((state + "/cdm/development-root-cert.pem").c_str(), 0600), 0);
  std::string text[2];
  const auto module = Module();
  EXPECT_NE(module->getStringProperty("getSystemId", " ", text[0], ""), 0);
  fs::remove_all(state + "/cdm");
  EXPECT_EQ(dynamic_cast<IWVCDM*>(module.get())->generateDeviceKeyAndCert(text[0], text[1]), 0);
  EXPECT_EQ(std::system(("openssl x509 -noout -dates -in " + state +
                         "/cdm/development-root-cert.pem | grep -c '1970\\|9999' | grep -q 2")
                            .c_str()),
            0);
  RunInChild([&] {
    for (const std::string& key : {text[0], ReadFile(state + "/cdm/development-root-key.pem")}) {
      std::ofstream(state + "/keys", std::ios::app)
          << std::string(key.rbegin(), key.rend()).substr(40, 30) << '\n';
    }
  });
  std::fill(text[0].begin(), text[0].end(), ' ');
  std::ifstream reversed(state + "/keys");
  for (std::string key; std::getline(reversed, key);) {
    EXPECT_EQ(CountInMemory(key), 0);
  }
}

constexpr Row ROWS[] = {
    {"1 ReadsDeleteNothing", ReadsDeleteNothing},
    {"3 EndedContextsLeaveNothing", EndedContextsLeaveNothing},
    {"4 ClosedStreamsStayClosed", ClosedStreamsStayClosed},
    {"5 BellHoldsNothing", BellHoldsNothing},
    {"6 PathIsTheTruth", PathIsTheTruth},
    {"7 OneFileHoldsEverything", OneFileHoldsEverything},
    {"8 DirectoryDecidesWhoMay", DirectoryDecidesWhoMay},
    {"9 NoLinkIsFollowed", NoLinkIsFollowed},
    {"10, 14 DirectoryIsFoundOnce", DirectoryIsFoundOnce},
    {"11 LogIsBoundInBytes", LogIsBoundInBytes},
    {"12 StoppedRecoveryHoldsNobodyLong", StoppedRecoveryHoldsNobodyLong},
    {"13 LimitsFailCallsOnly", LimitsFailCallsOnly},
};

TEST(SeenBroken, Holds) {
  std::string failed;
  for (const Row& row : ROWS) {
    const TemporaryDirectory base(FastDirectory());
    chmod(base.Path().c_str(), 0711);
    const int status = RunInChild([&] {
      const std::string state = base / "state";
      fs::create_directory(state);
      setenv("ONDARO_HOST_STATE", state.c_str(), 1);
      setenv("ONDARO_HOST_LOG", ("error:" + state + "-log").c_str(), 1);
      row.body(state);
      std::fflush(stdout);
      _exit(testing::Test::HasFailure() ? 1 : 0);
    });
    failed += status == 0 ? "" : std::string(row.name) + "; ";
  }
  EXPECT_EQ(failed, "");
}

}  // namespace
}  // namespace ondaro::test

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--tell") {
    ondaro::test::WriteFile(argv[2], ondaro::test::Get("host/state-directory"));
    return 0;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
