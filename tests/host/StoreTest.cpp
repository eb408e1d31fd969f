// The store as its callers know it: values, processes, and changes called back. The directory is
// the executable's, since a process has one store; each test has keys of its own.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "SettingsLimits.h"
#include "bus/WaitUntil.h"
#include "host/StoreProcess.h"
#include "platform/Log.h"
#include "platform/SettingsStore.h"

namespace {

std::atomic<int> g_errorLines{0};

}  // namespace

int platform_log_print(int, int priority, const char*, const char*, ...) {
  g_errorLines += priority == 6 ? 1 : 0;
  return 0;
}

namespace ondaro::test {
namespace {

std::optional<std::string> GetString(const std::string& key) {
  const std::unique_ptr<char, decltype(&std::free)> value(platform_settings_get_string(key.c_str()),
                                                          &std::free);
  return value ? std::optional<std::string>(value.get()) : std::nullopt;
}

int SetString(const std::string& key, const std::string& value) {
  return platform_settings_set_string(key.c_str(), value.c_str());
}

/// The directory of this executable, for as long as it runs.
class Directory : public testing::Environment {
 public:
  void SetUp() override {
    m_directory = std::make_unique<TemporaryDirectory>();
    setenv("ONDARO_HOST_STATE", m_directory->Path().c_str(), 1);
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
  }
  void TearDown() override { m_directory.reset(); }

  std::filesystem::path Path() const { return m_directory->Path(); }

 private:
  std::unique_ptr<TemporaryDirectory> m_directory;
};

Directory* const g_directory =
    static_cast<Directory*>(testing::AddGlobalTestEnvironment(new Directory));

/// Notes what it is called with, then does what the test wants done from within.
struct Recorder {
  std::vector<std::string> values;
  std::thread::id thread;
  std::function<void()> action;

  static void Changed(platform_settings_node* node, void* userData) {
    auto* self = static_cast<Recorder*>(userData);
    const char* text = platform_settings_node_string(node);
    self->values.emplace_back(text != nullptr ? text
                                              : std::to_string(platform_settings_node_int(node)));
    self->thread = std::this_thread::get_id();
    if (self->action) self->action();
  }
  /// Another function of the same use, since key and function are what identifies.
  static void ChangedToo(platform_settings_node* node, void* userData) { Changed(node, userData); }
};

using Values = std::vector<std::string>;

class Store : public testing::TestWithParam<const char*> {
 protected:
  ~Store() override {
    for (const auto& [key, callback] : m_subscribed) {
      platform_settings_unsubscribe(key.c_str(), callback);
    }
  }

  std::string Key(const std::string& name) const {
    const std::string area = GetParam();
    return area + "/" + testing::UnitTest::GetInstance()->current_test_info()->name() + "/" + name;
  }
  int Subscribe(const std::string& key, Recorder& recorder,
                platform_settings_changed_cb callback = &Recorder::Changed) {
    m_subscribed.emplace_back(key, callback);
    return platform_settings_subscribe(key.c_str(), callback, &recorder);
  }
  static int Unsubscribe(const std::string& key,
                         platform_settings_changed_cb callback = &Recorder::Changed) {
    return platform_settings_unsubscribe(key.c_str(), callback);
  }
  /// Returns when all that has been written so far has been called back.
  void Settle() {
    Recorder last;
    const std::string key = Key("settle");
    ASSERT_EQ(platform_settings_subscribe(key.c_str(), &Recorder::ChangedToo, &last), 0);
    SetString(key, "settled");
    EXPECT_TRUE(WaitUntil([&] { return !last.values.empty(); }));
    platform_settings_unsubscribe(key.c_str(), &Recorder::ChangedToo);
  }

 private:
  std::vector<std::pair<std::string, platform_settings_changed_cb>> m_subscribed;
};

INSTANTIATE_TEST_SUITE_P(Areas, Store, testing::Values("db", "memory"),
                         [](const auto& area) { return std::string(area.param); });

TEST_P(Store, ValuesComeBackByteForByte) {
  std::string everyByte;
  for (int byte = 1; byte <= UCHAR_MAX; ++byte) everyByte += static_cast<char>(byte);
  for (const std::string& value : {std::string(), everyByte, std::string(1 << 20, 'x')}) {
    ASSERT_EQ(SetString(Key("text"), value), 0);
    EXPECT_EQ(GetString(Key("text")), value);
  }
  for (const int value : {0, 1, 2, -1, INT_MIN, INT_MAX}) {
    int read = 7;
    ASSERT_EQ(platform_settings_set_int(Key("number").c_str(), value), 0);
    ASSERT_EQ(platform_settings_get_int(Key("number").c_str(), &read), 0);
    EXPECT_EQ(read, value);
    ASSERT_EQ(platform_settings_set_bool(Key("bool").c_str(), value), 0);
    ASSERT_EQ(platform_settings_get_bool(Key("bool").c_str(), &read), 0);
    EXPECT_EQ(read, value);
  }
}

TEST_P(Store, TextAndIntegerAreDistinctAndAMissingKeyIsNeither) {
  const std::string key = Key("key");
  const auto failsAsInt = [&] {
    int value = 7;
    return platform_settings_get_int(key.c_str(), &value) != 0 &&
           platform_settings_get_bool(key.c_str(), &value) != 0 && value == 7;
  };
  EXPECT_EQ(GetString(key), std::nullopt);
  EXPECT_TRUE(failsAsInt());
  ASSERT_EQ(SetString(key, "42"), 0);
  EXPECT_TRUE(failsAsInt());
  ASSERT_EQ(platform_settings_set_int(key.c_str(), 42), 0);
  EXPECT_EQ(GetString(key), std::nullopt);
}

TEST_P(Store, BadKeysAreRefusedEverywhereAndTouchNothing) {
  const std::string area = GetParam();
  const std::string atLimit = area + "/" + std::string(255 - area.size() - 1, 'k');
  ASSERT_EQ(SetString(atLimit, "value"), 0);
  EXPECT_EQ(GetString(atLimit), "value");
  const std::vector<std::string> bad = {"",
                                        "/" + area,
                                        area + "/",
                                        area + "//k",
                                        "./" + area,
                                        area + "/.",
                                        area + "/../k",
                                        "../" + area,
                                        atLimit + "k",
                                        area + "/\xff",
                                        area + "/\xc3"};
  for (const std::string& key : bad) {
    int value = 7;
    const int before = g_errorLines;
    EXPECT_NE(SetString(key, "value"), 0) << key;
    EXPECT_NE(platform_settings_set_int(key.c_str(), 1), 0) << key;
    EXPECT_EQ(GetString(key), std::nullopt) << key;
    EXPECT_NE(platform_settings_get_int(key.c_str(), &value), 0) << key;
    EXPECT_NE(platform_settings_subscribe(key.c_str(), &Recorder::Changed, nullptr), 0) << key;
    EXPECT_NE(platform_settings_unsubscribe(key.c_str(), &Recorder::Changed), 0) << key;
    EXPECT_EQ(value, 7);
    EXPECT_EQ(g_errorLines - before, 6) << key;
  }
  for (const std::string& key :
       {area + "/.hidden", area + "/...", area + "/\xc3\xa4", area + "s"}) {
    EXPECT_EQ(SetString(key, "value"), 0) << key;
  }
}

TEST_P(Store, NullPointersAreRefused) {
  const std::string key = Key("key");
  EXPECT_NE(platform_settings_set_string(key.c_str(), nullptr), 0);
  EXPECT_NE(platform_settings_set_string(nullptr, "value"), 0);
  EXPECT_EQ(platform_settings_get_string(nullptr), nullptr);
  ASSERT_EQ(platform_settings_set_int(key.c_str(), 1), 0);
  EXPECT_NE(platform_settings_get_int(key.c_str(), nullptr), 0);
  EXPECT_NE(platform_settings_subscribe(key.c_str(), nullptr, nullptr), 0);
}

TEST_P(Store, ValueSetByOneProcessIsReadByAnother) {
  StoreProcess other(g_directory->Path());
  for (const std::string value : {"one", "two", "two", "three"}) {
    ASSERT_EQ(other.Ask("set " + Key("key") + " " + value), "0");
    EXPECT_EQ(GetString(Key("key")), value);
    ASSERT_EQ(SetString(Key("key"), "answer-to-" + value), 0);
    EXPECT_EQ(other.Ask("get " + Key("key")), "answer-to-" + value);
    EXPECT_EQ(other.Ask("get " + Key("missing")), "(null)");
  }
}

TEST_P(Store, WritesInARowFromTwoProcessesReachAThirdCompleteAndInOrder) {
  const int count = GetParam() == std::string("memory") ? 1000 : 200;  // these wait for the disk
  const std::size_t expected = 2 * static_cast<std::size_t>(count);
  Recorder other;
  Recorder shared;
  ASSERT_EQ(SetString(Key("large"), std::string(1 << 20, 'x')), 0);  // to be no one's burden
  ASSERT_EQ(Subscribe(Key("other"), other), 0);
  ASSERT_EQ(Subscribe(Key("shared"), shared), 0);
  StoreProcess one(g_directory->Path());
  StoreProcess two(g_directory->Path());
  one.Begin("burst " + Key("shared") + " " + std::to_string(count) + " one");
  two.Begin("burst " + Key("shared") + " " + std::to_string(count) + " two");
  EXPECT_TRUE(WaitUntil([&] { return shared.values.size() >= expected; }));
  EXPECT_EQ(one.Reply(), "0") << one.Log();
  EXPECT_EQ(two.Reply(), "0") << two.Log();
  Settle();
  EXPECT_EQ(shared.values.size(), expected);
  std::map<std::string, int> next;
  for (const std::string& value : shared.values) {
    const std::string writer = value.substr(0, 3);
    EXPECT_EQ(value, writer + "-" + std::to_string(next[writer]++));
  }
  EXPECT_EQ(next["one"], count);
  EXPECT_EQ(next["two"], count);
  EXPECT_EQ(GetString(Key("shared")), shared.values.back());
  EXPECT_EQ(other.values, Values());
}

TEST_P(Store, WriterBesideOneThatWritesInARowIsLetThrough) {
  StoreProcess other(g_directory->Path());
  Recorder recorder;
  ASSERT_EQ(Subscribe(Key("key"), recorder), 0);
  other.Begin("burst " + Key("key") + " 1000000 other");
  EXPECT_TRUE(WaitUntil([&] { return !recorder.values.empty(); }));
  for (int write = 0; write < 20; ++write) EXPECT_EQ(SetString(Key("between"), "value"), 0);
  other.Process().Kill();
}

TEST_P(Store, EveryWriteIsOneCallAlsoOfTheSameValue) {
  Recorder recorder;
  ASSERT_EQ(SetString(Key("key"), "earlier"), 0);
  ASSERT_EQ(Subscribe(Key("key"), recorder), 0);
  SetString(Key("key"), "same");
  SetString(Key("key"), "same");
  platform_settings_set_int(Key("key").c_str(), -1);
  SetString(Key("key") + "/below", "another key");
  Settle();
  EXPECT_EQ(recorder.values, (Values{"same", "same", "-1"}));
}

TEST_P(Store, NodeTellsNameTypeAndValue) {
  struct Seen {
    std::string name;
    bool isText;
    int number;
    int error;
  };
  std::vector<Seen> seen;
  const auto callback = [](platform_settings_node* node, void* userData) {
    errno = 0;
    const bool isText = platform_settings_node_string(node) != nullptr;
    const int number = platform_settings_node_int(node);
    static_cast<std::vector<Seen>*>(userData)->push_back(
        {platform_settings_node_name(node), isText, number, errno});
  };
  ASSERT_EQ(platform_settings_subscribe(Key("key").c_str(), callback, &seen), 0);
  platform_settings_set_int(Key("key").c_str(), -1);
  SetString(Key("key"), "-1");
  EXPECT_TRUE(WaitUntil([&] { return seen.size() == 2; }));
  EXPECT_EQ(platform_settings_unsubscribe(Key("key").c_str(), callback), 0);
  EXPECT_EQ(seen[0].name, Key("key"));
  EXPECT_FALSE(seen[0].isText);
  EXPECT_EQ(seen[0].number, -1);
  EXPECT_EQ(seen[0].error, 0);
  EXPECT_TRUE(seen[1].isText);
  EXPECT_EQ(seen[1].number, -1);
  EXPECT_NE(seen[1].error, 0);
}

TEST_P(Store, SubscribedAgainIsStillOneSubscriptionWithTheNewestData) {
  Recorder first;
  Recorder second;
  ASSERT_EQ(Subscribe(Key("key"), first), 0);
  ASSERT_EQ(Subscribe(Key("key"), second), 0);
  SetString(Key("key"), "value");
  Settle();
  EXPECT_EQ(first.values, Values());
  EXPECT_EQ(second.values, Values{"value"});
  EXPECT_EQ(Unsubscribe(Key("key")), 0);
  EXPECT_NE(Unsubscribe(Key("key")), 0);
}

TEST_P(Store, UnsubscribedMeansNoFurtherCallAlsoForChangesOnTheirWay) {
  Recorder gone;
  Recorder kept;
  ASSERT_EQ(Subscribe(Key("key"), gone), 0);
  ASSERT_EQ(Subscribe(Key("key"), kept, &Recorder::ChangedToo), 0);
  SetString(Key("key"), "on its way");
  EXPECT_EQ(Unsubscribe(Key("key")), 0);
  EXPECT_TRUE(WaitUntil([&] { return kept.values.size() == 1; }));
  // Subscribed again it sees what comes after that only.
  ASSERT_EQ(Subscribe(Key("key"), gone), 0);
  SetString(Key("key"), "later");
  EXPECT_TRUE(WaitUntil([&] { return kept.values.size() == 2; }));
  EXPECT_EQ(gone.values, Values{"later"});
}

TEST_P(Store, CallbackMayUnsubscribeItself) {
  Recorder recorder;
  recorder.action = [&] { EXPECT_EQ(Unsubscribe(Key("key")), 0); };
  ASSERT_EQ(Subscribe(Key("key"), recorder), 0);
  SetString(Key("key"), "one");
  SetString(Key("key"), "two");
  Settle();
  EXPECT_EQ(recorder.values, Values{"one"});
}

TEST_P(Store, CallbackMayUnsubscribeAnother) {
  // Whichever is called first ends the other one.
  Recorder one;
  Recorder two;
  one.action = [&] { Unsubscribe(Key("key"), &Recorder::ChangedToo); };
  two.action = [&] { Unsubscribe(Key("key"), &Recorder::Changed); };
  ASSERT_EQ(Subscribe(Key("key"), one), 0);
  ASSERT_EQ(Subscribe(Key("key"), two, &Recorder::ChangedToo), 0);
  SetString(Key("key"), "a");
  SetString(Key("key"), "b");
  Settle();
  EXPECT_EQ(one.values.size() * two.values.size(), 0U);
  EXPECT_EQ(one.values.size() + two.values.size(), 2U);
}

TEST_P(Store, CallbackMaySubscribeAndWrite) {
  Recorder inner;
  Recorder outer;
  outer.action = [&] {
    if (outer.values.size() > 3) return;
    EXPECT_EQ(Subscribe(Key("inner"), inner), 0);
    EXPECT_EQ(SetString(Key("inner"), "from " + outer.values.back()), 0);
    EXPECT_EQ(SetString(Key("outer"), outer.values.back() + "+"), 0);
  };
  ASSERT_EQ(Subscribe(Key("outer"), outer), 0);
  SetString(Key("inner"), "before");
  SetString(Key("outer"), "x");
  EXPECT_TRUE(WaitUntil([&] { return outer.values.size() == 4; }));
  Settle();
  EXPECT_EQ(outer.values, (Values{"x", "x+", "x++", "x+++"}));
  EXPECT_EQ(inner.values, (Values{"from x", "from x+", "from x++"}));
}

TEST_P(Store, ExceptionEndsAtTheCallbackThatThrewIt) {
  Recorder thrower;
  Recorder other;
  thrower.action = [] { throw std::runtime_error("from a callback"); };
  ASSERT_EQ(Subscribe(Key("key"), thrower), 0);
  ASSERT_EQ(Subscribe(Key("key"), other, &Recorder::ChangedToo), 0);
  const int before = g_errorLines;
  SetString(Key("key"), "one");
  SetString(Key("key"), "two");
  Settle();
  EXPECT_EQ(thrower.values, (Values{"one", "two"}));
  EXPECT_EQ(other.values, thrower.values);
  EXPECT_EQ(g_errorLines - before, 2);
}

/// A thread with a main context of its own, iterated until it is told to end.
class ContextThread {
 public:
  ContextThread() : m_thread([this] { Run(); }) {}
  ~ContextThread() { End(); }

  void Do(const std::function<void()>& work) {
    std::promise<void> done;
    {
      std::lock_guard lock(m_mutex);
      m_work.push_back([&] {
        work();
        done.set_value();
      });
    }
    done.get_future().wait();
  }
  void End() {
    m_mustEnd = true;
    if (m_thread.joinable()) m_thread.join();
  }

 private:
  void Run() {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    WaitUntil([this] {
      std::vector<std::function<void()>> work;
      {
        std::lock_guard lock(m_mutex);
        work.swap(m_work);
      }
      for (const auto& each : work) each();
      return m_mustEnd.load();
    });
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
  }

  std::mutex m_mutex;
  std::vector<std::function<void()>> m_work;
  std::atomic<bool> m_mustEnd{false};
  std::thread m_thread;
};

TEST_P(Store, CallsComeInTheContextOfTheThreadThatSubscribed) {
  Recorder here;
  Recorder there;
  ContextThread thread;
  std::atomic<std::size_t> calls{0};
  there.action = [&] { ++calls; };
  ASSERT_EQ(Subscribe(Key("key"), here), 0);
  thread.Do([&] { ASSERT_EQ(Subscribe(Key("key"), there, &Recorder::ChangedToo), 0); });
  // The other thread is called however long this one does not look, and the other way round.
  constexpr int COUNT = 300;
  StoreProcess writer(g_directory->Path());
  ASSERT_EQ(writer.Ask("burst " + Key("key") + " 300 x"), "0");
  while (calls < COUNT) std::this_thread::yield();
  EXPECT_EQ(here.values, Values());
  EXPECT_TRUE(WaitUntil([&] { return here.values.size() == COUNT; }));
  thread.End();
  EXPECT_EQ(here.values, there.values);
  EXPECT_EQ(here.thread, std::this_thread::get_id());
  EXPECT_NE(there.thread, here.thread);
}

TEST_P(Store, SubscriptionOfAContextThatIsGoneCanBeEndedOrMovedOn) {
  Recorder recorder;
  {
    ContextThread thread;
    thread.Do([&] {
      Subscribe(Key("ended"), recorder);
      Subscribe(Key("moved"), recorder);
    });
  }
  SetString(Key("ended"), "lost");
  SetString(Key("moved"), "lost");
  EXPECT_EQ(Unsubscribe(Key("ended")), 0);
  ASSERT_EQ(Subscribe(Key("moved"), recorder), 0);
  SetString(Key("moved"), "heard");
  Settle();
  EXPECT_EQ(recorder.values, Values{"heard"});
}

TEST_P(Store, UnsubscribingInAnotherThreadWaitsForTheCallToEnd) {
  std::atomic<bool> isInCall{false};
  std::atomic<bool> mayEnd{false};
  std::atomic<bool> hasEnded{false};
  Recorder recorder;
  recorder.action = [&] {
    isInCall = true;
    while (!mayEnd) std::this_thread::yield();
    hasEnded = true;
  };
  ContextThread thread;
  thread.Do([&] { Subscribe(Key("key"), recorder); });
  SetString(Key("key"), "one");
  SetString(Key("key"), "two");
  while (!isInCall) std::this_thread::yield();
  auto unsubscribed = std::async(std::launch::async, [&] {
    EXPECT_EQ(Unsubscribe(Key("key")), 0);
    return hasEnded.load();
  });
  EXPECT_EQ(unsubscribed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  mayEnd = true;
  EXPECT_TRUE(unsubscribed.get());
  thread.End();
  EXPECT_EQ(recorder.values, Values{"one"});
}

/// For what takes thousands of writes, which say the same without a disk to wait for.
class LongLog : public Store {};
INSTANTIATE_TEST_SUITE_P(Areas, LongLog, testing::Values("memory"));

TEST_P(LongLog, OneThatFellBehindTheCapGetsTheCurrentValueOfItsKeys) {
  Recorder busy;
  Recorder once;
  Recorder unchanged;
  SetString(Key("unchanged"), "early");
  ASSERT_EQ(Subscribe(Key("busy"), busy), 0);
  ASSERT_EQ(Subscribe(Key("once"), once), 0);
  ASSERT_EQ(Subscribe(Key("unchanged"), unchanged), 0);
  SetString(Key("once"), "trimmed");
  SetString(Key("once"), "current");
  const auto count =
      std::to_string(ondaro::host::SETTINGS_LOG_CAP + 2 * ondaro::host::SETTINGS_TRIM_BATCH);
  StoreProcess writer(g_directory->Path());
  ASSERT_EQ(writer.Ask("burst " + Key("busy") + " " + count + " x"), "0");
  Settle();
  EXPECT_EQ(once.values, Values{"current"});
  EXPECT_EQ(unchanged.values, Values());
  ASSERT_FALSE(busy.values.empty());
  EXPECT_EQ(busy.values.back(), "x-" + std::to_string(std::stoi(count) - 1));
  EXPECT_GE(busy.values.size(), static_cast<std::size_t>(ondaro::host::SETTINGS_LOG_CAP));
  SetString(Key("busy"), "and on");
  Settle();
  EXPECT_EQ(busy.values.back(), "and on");
}

TEST_P(Store, ThreadsUseItAtOnce) {
  constexpr int ROUNDS = 200;
  Recorder recorder;
  ASSERT_EQ(Subscribe(Key("shared"), recorder), 0);
  std::vector<std::thread> threads;
  for (const std::string name : {"one", "two"}) {
    threads.emplace_back([this, name] {
      Recorder ignored;
      for (int round = 0; round < ROUNDS; ++round) {
        const std::string value = name + std::to_string(round);
        EXPECT_EQ(SetString(Key(name), value), 0);
        EXPECT_EQ(SetString(Key("shared"), value), 0);
        EXPECT_EQ(GetString(Key(name)), value);
        EXPECT_NE(GetString(Key("shared")), std::nullopt);
        EXPECT_EQ(platform_settings_subscribe(Key(name).c_str(), &Recorder::ChangedToo, &ignored),
                  0);
        EXPECT_EQ(Unsubscribe(Key(name), &Recorder::ChangedToo), 0);
      }
    });
  }
  EXPECT_TRUE(WaitUntil([&] { return recorder.values.size() == 2 * ROUNDS; }));
  for (std::thread& thread : threads) thread.join();
}

/// The exit code of `work` in a forked child; it is not to return to the test.
int InChild(const std::function<bool()>& work) {
  const pid_t pid = fork();
  if (pid == 0) {
    alarm(static_cast<unsigned>(PATIENCE.count()));
    _exit(work() ? 0 : 1);
  }
  int status = -1;
  waitpid(pid, &status, 0);
  return status;
}

TEST_P(Store, ForkedChildReadsWritesAndIsCalledBackLikeItsParent) {
  Recorder recorder;
  ASSERT_EQ(Subscribe(Key("key"), recorder), 0);
  SetString(Key("key"), "parent");
  EXPECT_TRUE(WaitUntil([&] { return recorder.values.size() == 1; }));
  EXPECT_EQ(GetString(Key("key")), "parent");
  EXPECT_EQ(InChild([&] {
              return GetString(Key("key")) == "parent" && SetString(Key("key"), "child") == 0 &&
                     GetString(Key("key")) == "child" &&
                     WaitUntil([&] { return recorder.values.size() == 2; }) &&
                     recorder.values.back() == "child";
            }),
            0);
  EXPECT_EQ(GetString(Key("key")), "child");
  EXPECT_TRUE(WaitUntil([&] { return recorder.values.size() == 2; }));
  SetString(Key("key"), "parent again");
  Settle();
  EXPECT_EQ(recorder.values, (Values{"parent", "child", "parent again"}));
}

// Not under a sanitizer: its allocator may be locked by the other thread when the child begins.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_P(Store, ForkWhileAnotherThreadWrites) {
  std::atomic<bool> mustEnd{false};
  std::thread writer([&] {
    while (!mustEnd) EXPECT_EQ(SetString(Key("thread"), "value"), 0);
  });
  for (int round = 0; round < 10; ++round) {
    const std::string value = std::to_string(round);
    EXPECT_EQ(InChild([&] { return SetString(Key("child"), value) == 0; }), 0);
    EXPECT_EQ(GetString(Key("child")), value);
  }
  mustEnd = true;
  writer.join();
}
#endif

}  // namespace
}  // namespace ondaro::test
