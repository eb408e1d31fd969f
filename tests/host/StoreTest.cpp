// What the store promises beyond the seam: its keys, the contexts of its calls, forks, and what
// comes of a subscriber in an unusual moment. The directory is the executable's, since a process
// has one store; each test has keys of its own.

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "HostSupport.h"
#include "platform/Log.h"
#include "platform/SettingsStore.h"
#include "support/WaitUntil.h"

namespace {

std::atomic<int> g_errorLines{0};

}  // namespace

int platform_log_print(int, int priority, const char*, const char*, ...) {
  g_errorLines += priority == 6 ? 1 : 0;
  return 0;
}

namespace ondaro::test {
namespace {

using Values = std::vector<std::string>;

std::string Get(const std::string& key) {
  char* value = platform_settings_get_string(key.c_str());
  std::string text = value != nullptr ? value : "(none)";
  std::free(value);
  return text;
}

bool Set(const std::string& key, const std::string& value) {
  return platform_settings_set_string(key.c_str(), value.c_str()) == 0;
}

/// Registered before the store is first used, so what that leaves to be destroyed has gone by then.
std::string g_keyAtExit;
[[maybe_unused]] const int g_isRegistered = std::atexit([] {
  if (!g_keyAtExit.empty()) {
    Set(g_keyAtExit, Get(g_keyAtExit) + ", late");
  }
});

/// Notes what it is called with, then does what the test wants done from within.
struct Recorder {
  Values values;
  std::function<void()> action;

  static void Changed(platform_settings_node* node, void* userData) {
    auto* self = static_cast<Recorder*>(userData);
    self->values.emplace_back(platform_settings_node_string(node));
    if (self->action) {
      self->action();
    }
  }
  /// Another function of the same use, since key and function are what identifies.
  static void ChangedToo(platform_settings_node* node, void* userData) { Changed(node, userData); }
};

class Store : public testing::TestWithParam<std::string> {
 protected:
  Store() { StateDirectory(); }
  ~Store() override {
    for (const auto& [key, callback] : m_subscribed) {
      platform_settings_unsubscribe(key.c_str(), callback);
    }
  }

  static std::string Key(const std::string& name) {
    return GetParam() + "/" + testing::UnitTest::GetInstance()->current_test_info()->name() + "/" +
           name;
  }
  void Subscribe(const std::string& key, Recorder& recorder,
                 platform_settings_changed_cb callback = &Recorder::Changed) {
    m_subscribed.emplace_back(key, callback);
    EXPECT_EQ(platform_settings_subscribe(key.c_str(), callback, &recorder), 0);
  }
  static bool Unsubscribe(const std::string& key,
                          platform_settings_changed_cb callback = &Recorder::Changed) {
    return platform_settings_unsubscribe(key.c_str(), callback) == 0;
  }
  /// Returns when all that has been written so far has been called back.
  void Settle() {
    Recorder last;
    Subscribe(Key("settle"), last, &Recorder::ChangedToo);
    Set(Key("settle"), "settled");
    EXPECT_TRUE(WaitUntil([&] { return !last.values.empty(); }));
    Unsubscribe(Key("settle"), &Recorder::ChangedToo);
  }

 private:
  std::vector<std::pair<std::string, platform_settings_changed_cb>> m_subscribed;
};

INSTANTIATE_TEST_SUITE_P(Areas, Store, testing::Values("db", "memory"),
                         [](const auto& area) { return area.param; });

TEST_P(Store, BadKeysAndNullPointersAreRefusedWithALineEach) {
  const std::string area = GetParam();
  const std::string longest = area + "/" + std::string(255 - area.size() - 1, 'k');
  for (const std::string& key :
       {longest, area + "/.hidden", area + "/...", area + "/\xc3\xa4", area + "s"}) {
    EXPECT_TRUE(Set(key, "value")) << key;
    EXPECT_EQ(Get(key), "value") << key;
  }
  for (const std::string& key :
       {std::string(), "/" + area, area + "/", area + "//k", "./" + area, area + "/.",
        area + "/../k", "../" + area, longest + "k", area + "/\xff", area + "/\xc3"}) {
    int value = 7;
    const int before = g_errorLines;
    EXPECT_FALSE(Set(key, "value") || Unsubscribe(key)) << key;
    EXPECT_NE(platform_settings_set_int(key.c_str(), 1), 0) << key;
    EXPECT_EQ(Get(key), "(none)") << key;
    EXPECT_NE(platform_settings_get_int(key.c_str(), &value), 0) << key;
    EXPECT_NE(platform_settings_subscribe(key.c_str(), &Recorder::Changed, nullptr), 0) << key;
    EXPECT_EQ(value, 7);
    EXPECT_EQ(g_errorLines - before, 6) << key;
  }
  ASSERT_EQ(platform_settings_set_int(longest.c_str(), 1), 0);
  EXPECT_NE(platform_settings_get_int(longest.c_str(), nullptr), 0);
  EXPECT_NE(platform_settings_set_string(longest.c_str(), nullptr), 0);
  EXPECT_NE(platform_settings_set_string(nullptr, "value"), 0);
  EXPECT_EQ(platform_settings_get_string(nullptr), nullptr);
  EXPECT_NE(platform_settings_subscribe(longest.c_str(), nullptr, nullptr), 0);
}

TEST_P(Store, CallbackMayThrow) {
  Recorder thrower;
  thrower.action = [] { throw std::runtime_error("from a callback"); };
  Subscribe(Key("key"), thrower);
  const int before = g_errorLines;
  EXPECT_TRUE(Set(Key("key"), "a") && Set(Key("key"), "b"));
  Settle();
  EXPECT_EQ(thrower.values, (Values{"a", "b"}));
  EXPECT_EQ(g_errorLines - before, 2) << "a line each for what was thrown";
}

/// Waits for another thread, without serving the main context.
template <typename Predicate>
bool Becomes(Predicate predicate) {
  const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
  while (!predicate() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  return predicate();
}

/// A thread that subscribes in a main context of its own, which it serves until it is ended.
class ContextThread {
 public:
  explicit ContextThread(const std::function<void()>& subscribe)
      : m_thread([this, subscribe] {
          GMainContext* context = g_main_context_new();
          g_main_context_push_thread_default(context);
          subscribe();
          m_hasBegun = true;
          WaitUntil([this] { return m_mustEnd.load(); });
          g_main_context_pop_thread_default(context);
          g_main_context_unref(context);
        }) {
    Becomes([this] { return m_hasBegun.load(); });
  }
  ~ContextThread() {
    m_mustEnd = true;
    m_thread.join();
  }

 private:
  std::atomic<bool> m_hasBegun{false};
  std::atomic<bool> m_mustEnd{false};
  std::thread m_thread;
};

TEST_P(Store, UnsubscribingInAnotherThreadWaitsForTheCallToEnd) {
  std::atomic<bool> isInCall{false};
  std::atomic<bool> mayEnd{false};
  std::atomic<bool> hasEnded{false};
  Recorder recorder;
  recorder.action = [&] {
    isInCall = true;
    hasEnded = Becomes([&] { return mayEnd.load(); });
  };
  const ContextThread thread([&] { Subscribe(Key("key"), recorder); });
  EXPECT_TRUE(Set(Key("key"), "one") && Set(Key("key"), "two"));
  EXPECT_TRUE(Becomes([&] { return isInCall.load(); }));
  auto unsubscribed = std::async(std::launch::async,
                                 [&, key = Key("key")] { return Unsubscribe(key) && hasEnded; });
  EXPECT_EQ(unsubscribed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  mayEnd = true;
  EXPECT_TRUE(unsubscribed.get());
  EXPECT_EQ(recorder.values, Values{"one"});
}

TEST_P(Store, UnsubscribingDoesNotWaitForACallThatEndedItsThread) {
  Recorder recorder;
  recorder.action = [] { pthread_exit(nullptr); };
  std::thread([&] {
    g_main_context_push_thread_default(g_main_context_new());
    Subscribe(Key("key"), recorder);
    Set(Key("key"), "end");
    Settle();
    ADD_FAILURE() << "goes on";
  }).join();
  EXPECT_EQ(recorder.values, Values{"end"});
  EXPECT_TRUE(Unsubscribe(Key("key")));
}

TEST_P(Store, CallbacksOfTwoThreadsMayEndEachOther) {
  std::atomic<int> begun{0};
  std::atomic<int> ended{0};
  const auto endOther = [&](const std::string& other) {
    return [&, other] {
      ++begun;
      EXPECT_TRUE(Becomes([&] { return begun == 2; }));
      EXPECT_TRUE(Unsubscribe(other));
      ++ended;
    };
  };
  Recorder here;
  Recorder there;
  here.action = endOther(Key("there"));
  there.action = endOther(Key("here"));
  Subscribe(Key("here"), here);
  const ContextThread thread([&] { Subscribe(Key("there"), there); });
  EXPECT_TRUE(Set(Key("here"), "one") && Set(Key("there"), "one"));
  EXPECT_TRUE(WaitUntil([&] { return ended == 2; }));
  EXPECT_TRUE(Set(Key("here"), "two") && Set(Key("there"), "two"));
  Settle();
  EXPECT_EQ(begun, 2);
}

TEST_P(Store, ThreadsSubscribeAndWriteAtOnce) {
  constexpr std::size_t ROUNDS = 200;
  Recorder recorder;
  Subscribe(Key("shared"), recorder);
  const auto use = [shared = Key("shared")](const std::string& own) {
    Recorder ignored;
    for (std::size_t round = 0; round < ROUNDS; ++round) {
      EXPECT_EQ(platform_settings_subscribe(own.c_str(), &Recorder::ChangedToo, &ignored), 0);
      EXPECT_TRUE(Set(own, std::to_string(round)) && Set(shared, "value"));
      EXPECT_EQ(Get(own), std::to_string(round));
      EXPECT_TRUE(Unsubscribe(own, &Recorder::ChangedToo));
    }
  };
  const auto one = std::async(std::launch::async, use, Key("one"));
  const auto two = std::async(std::launch::async, use, Key("two"));
  EXPECT_TRUE(WaitUntil([&] { return recorder.values.size() == 2 * ROUNDS; }));
}

TEST_P(Store, ForkedChildReadsWritesAndIsCalledBackLikeItsParent) {
  Recorder recorder;
  Subscribe(Key("key"), recorder);
  Set(Key("key"), "parent");
  Settle();
  EXPECT_EQ(RunInChild([&] {
              const bool isUsed = Get(Key("key")) == "parent" && Set(Key("key"), "child");
              Settle();
              _exit(isUsed && recorder.values.back() == Get(Key("key")) ? 0 : 1);
            }),
            0);
  EXPECT_EQ(Get(Key("key")), "child");
  Set(Key("key"), "parent again");
  Settle();
  EXPECT_EQ(recorder.values, (Values{"parent", "child", "parent again"}));
}

// Not under a sanitizer: its allocator may be locked by the other thread when the child begins.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_P(Store, ForkWhileAnotherThreadWrites) {
  std::atomic<bool> mustEnd{false};
  const auto writer = std::async(std::launch::async, [&, key = Key("thread")] {
    while (!mustEnd) {
      EXPECT_TRUE(Set(key, "value"));
    }
  });
  for (int round = 0; round < 10; ++round) {
    const std::string value = std::to_string(round);
    EXPECT_EQ(RunInChild([&] { _exit(Set(Key("child"), value) ? 0 : 1); }), 0);
    EXPECT_EQ(Get(Key("child")), value);
  }
  mustEnd = true;
}
#endif

TEST_P(Store, WorksUntilTheProcessHasEnded) {
  EXPECT_EQ(RunInChild([] {
              g_keyAtExit = Key("key");
              Set(g_keyAtExit, "early");
              std::exit(0);
            }),
            0);
  EXPECT_EQ(Get(Key("key")), "early, late");
}

}  // namespace
}  // namespace ondaro::test
