#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <thread>

#include "Judging.h"
#include "Probes.h"
#include "Recorder.h"
#include "SettingsKeys.h"
#include "platform/SettingsStore.h"

namespace conformance {
namespace {

constexpr char TEXT[] = "conformance";
constexpr char OTHER_TEXT[] = "another value";
constexpr int NUMBER = 4711;
constexpr int UNTOUCHED = -815;
constexpr int CHANGES = 10;

std::string FirstRoot() { return TheContext().declaration.SettingsRoots().front(); }
std::string First() { return FirstRoot() + "/" + FIRST_NAME; }
std::string Second() { return FirstRoot() + "/" + SECOND_NAME; }
std::string Missing() { return FirstRoot() + "/" + MISSING_NAME; }

/// Keys of all lifetimes that the port tells apart.
template <typename Use>
void ForEachRoot(Use use) {
  for (const std::string& root : TheContext().declaration.SettingsRoots()) {
    SCOPED_TRACE(root);
    use(root + "/" + FIRST_NAME);
  }
}

void WriteKey(const std::string& key, const std::string& text) {
  Needs("SET-05", platform_settings_set_string(key.c_str(), text.c_str()) == 0,
        "a string write failed");
  Needs("SET-05", ReadText(key) == text, "a string was not written");
}

void WriteKey(const std::string& key, int number) {
  Needs("SET-08", platform_settings_set_int(key.c_str(), number) == 0, "an integer write failed");
  int read = ~number;
  Needs("SET-08", platform_settings_get_int(key.c_str(), &read) == 0 && read == number,
        "an integer was not written");
}

/// One event, of which a clause then judges the content.
template <typename Value>
Event EventOf(const std::string& key, const Value& value) {
  Recorder& recorder = NewRecorder();
  const Subscription subscription(key, OnChange, recorder);
  Needs("SET-17", subscription.Status() == 0, "a subscription failed");
  WriteKey(key, value);
  Needs("SET-17", recorder.WaitForCount(1), "no event came");
  return recorder.Events().front();
}

/// Two writes of `key`, seen on a subscription of its own; whatever the first called for has been
/// delivered by then.
void ChangeTwiceAndSettle(const std::string& key) {
  Recorder& fence = NewRecorder();
  const Subscription subscription(key, OnFenceChange, fence);
  Needs("SET-17", subscription.Status() == 0, "a subscription failed");
  WriteKey(key, 1);
  WriteKey(key, 2);
  Needs("SET-17", fence.WaitForCount(2), "an event did not come");
  Drain();
}

void NeedsSharedStore() {
  if (TheContext().declaration.IsYes(keys::SETTINGS_SHARED)) {
    return;
  }
  WriteKey(First(), TEXT);
  EXPECT_NE(RunProcess(Probe({probes::READ_TEXT, First()})).output, std::string(TEXT) + "\n")
      << "false declaration: processes share the store, which '" << keys::SETTINGS_SHARED
      << "' does not say";
  Absent("processes do not share the store");
}

}  // namespace

bool probes::ReleaseText(const Arguments& arguments) {
  const char* const key = arguments[0].c_str();
  char* text = platform_settings_get_string(key);
  if (text == nullptr) {
    // A store of this process alone does not have it.
    platform_settings_set_string(key, TEXT);
    text = platform_settings_get_string(key);
  }
  std::free(text);
  return text != nullptr;
}

bool probes::AnswerText(const Arguments& arguments) {
  const std::optional<std::string> text = ReadText(arguments[0]);
  Answer(text.value_or("(none)"));
  return text.has_value();
}

bool probes::AnswerInt(const Arguments& arguments) {
  int number = 0;
  const bool isRead = platform_settings_get_int(arguments[0].c_str(), &number) == 0;
  Answer(isRead ? std::to_string(number) : "(none)");
  return isRead;
}

bool probes::WriteText(const Arguments& arguments) {
  return platform_settings_set_string(arguments[0].c_str(), arguments[1].c_str()) == 0;
}

bool probes::WriteInt(const Arguments& arguments) {
  return platform_settings_set_int(arguments[0].c_str(), std::stoi(arguments[1])) == 0;
}

TEST(Settings, SET_01_AStringReadIsANewCopy) {
  WriteKey(First(), TEXT);
  char* const one = platform_settings_get_string(First().c_str());
  char* const two = platform_settings_get_string(First().c_str());
  ASSERT_NE(one, nullptr);
  ASSERT_NE(two, nullptr);
  EXPECT_NE(one, two);
  EXPECT_STREQ(one, TEXT);
  one[0] = 'C';
  EXPECT_STREQ(two, TEXT) << "after a change of the other copy";
  EXPECT_EQ(ReadText(First()), TEXT) << "after a change of a copy";
  if (RunProcess(Probe({probes::RELEASE_TEXT, First()})).Succeeded()) {
    std::free(one);
    std::free(two);
  }
}

TEST(Settings, SET_02_FreeReleasesAString) {
  WriteKey(First(), TEXT);
  const Outcome outcome = RunProcess(Probe({probes::RELEASE_TEXT, First()}));
  EXPECT_TRUE(outcome.Succeeded()) << "a process that freed a string: " << outcome.Describe();
}

TEST(Settings, SET_03_AStringReadOfAMissingKeyIsNull) {
  EXPECT_EQ(ReadText(Missing()), std::nullopt);
}

TEST(Settings, SET_04_AStringReadOfAnIntegerIsNull) {
  ForEachRoot([](const std::string& key) {
    WriteKey(key, NUMBER);
    EXPECT_EQ(ReadText(key), std::nullopt);
  });
}

TEST(Settings, SET_05_AStringWriteHoldsTheWholeValue) {
  const std::string values[] = {TEXT,
                                "",
                                OTHER_TEXT,
                                "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\xba",
                                "a\nb\tc\x01 \" ' \\ % ; = / {}",
                                "0",
                                std::string(255, 'n') + "256th",
                                std::string(20000, 'x') + "end"};
  ForEachRoot([&](const std::string& key) {
    platform_settings_set_int(key.c_str(), NUMBER);
    for (const std::string& value : values) {
      EXPECT_EQ(platform_settings_set_string(key.c_str(), value.c_str()), 0);
      const std::optional<std::string> read = ReadText(key);
      EXPECT_TRUE(read == value) << "written " << value.size() << " bytes, read "
                                 << (read ? std::to_string(read->size()) + " bytes" : "nothing")
                                 << "; the value begins \"" << value.substr(0, 40) << '"';
    }
  });
}

TEST(Settings, SET_06_AnIntegerReadFillsTheValue) {
  ForEachRoot([](const std::string& key) {
    Needs("SET-08", platform_settings_set_int(key.c_str(), NUMBER) == 0, "a write failed");
    int value = UNTOUCHED;
    EXPECT_EQ(platform_settings_get_int(key.c_str(), &value), 0);
    EXPECT_EQ(value, NUMBER);
  });
}

TEST(Settings, SET_07_AFailedIntegerReadLeavesTheValueUntouched) {
  int value = UNTOUCHED;
  EXPECT_NE(platform_settings_get_int(Missing().c_str(), &value), 0) << "of a missing key";
  EXPECT_EQ(value, UNTOUCHED) << "after a read of a missing key";
  WriteKey(First(), TEXT);
  value = UNTOUCHED;
  EXPECT_NE(platform_settings_get_int(First().c_str(), &value), 0) << "of a string";
  EXPECT_EQ(value, UNTOUCHED) << "after a read of a string";
}

TEST(Settings, SET_08_AnIntegerWriteHoldsTheValue) {
  ForEachRoot([](const std::string& key) {
    platform_settings_set_string(key.c_str(), TEXT);
    for (const int value : {0, 1, -1, NUMBER, INT_MAX, INT_MIN}) {
      EXPECT_EQ(platform_settings_set_int(key.c_str(), value), 0) << value;
      int read = ~value;
      EXPECT_EQ(platform_settings_get_int(key.c_str(), &read), 0) << value;
      EXPECT_EQ(read, value);
    }
  });
}

TEST(Settings, SET_09_ABooleanReadIsTheStoredInteger) {
  ForEachRoot([](const std::string& key) {
    for (const int value : {0, 1, 2, -1}) {
      WriteKey(key, value);
      int read = ~value;
      EXPECT_EQ(platform_settings_get_bool(key.c_str(), &read), 0) << value;
      EXPECT_EQ(read, value);
    }
  });
  int value = UNTOUCHED;
  EXPECT_NE(platform_settings_get_bool(Missing().c_str(), &value), 0) << "of a missing key";
}

TEST(Settings, SET_10_ABooleanWriteStoresTheInteger) {
  ForEachRoot([](const std::string& key) {
    for (const int value : {0, 1, 2, -1}) {
      EXPECT_EQ(platform_settings_set_bool(key.c_str(), value), 0) << value;
      int read = ~value;
      EXPECT_EQ(platform_settings_get_int(key.c_str(), &read), 0) << value;
      EXPECT_EQ(read, value);
    }
  });
}

TEST(Settings, SET_11_ANodesNameIsTheChangedKey) {
  ForEachRoot([](const std::string& key) {
    EXPECT_EQ(EventOf(key, TEXT).name, key);
    EXPECT_EQ(EventOf(key, NUMBER).name, key);
  });
}

TEST(Settings, SET_12_ANodesStringIsTheNewValue) {
  const std::string values[] = {TEXT, OTHER_TEXT, "caf\xc3\xa9\n\x01",
                                std::string(5000, 'y') + "e"};
  ForEachRoot([&](const std::string& key) {
    WriteKey(key, "what was there before");
    for (const std::string& value : values) {
      EXPECT_EQ(EventOf(key, value).text, value);
    }
  });
}

TEST(Settings, SET_13_ANodesStringIsNullForAnInteger) {
  WriteKey(First(), TEXT);
  EXPECT_EQ(EventOf(First(), NUMBER).text, std::nullopt);
}

TEST(Settings, SET_14_ANodesIntegerIsTheNewValue) {
  for (const int value : {NUMBER, 0, INT_MIN, -1}) {
    const Event event = EventOf(First(), value);
    EXPECT_EQ(event.number, value);
    EXPECT_EQ(event.error, 0) << "errno, for " << value;
  }
}

TEST(Settings, SET_15_ANodesIntegerFailsForAString) {
  WriteKey(First(), NUMBER);
  const Event event = EventOf(First(), TEXT);
  EXPECT_EQ(event.number, -1);
  EXPECT_NE(event.error, 0) << "errno";
}

TEST(Settings, SET_16_ANodeIsValidDuringTheCallback) {
  WriteKey(Second(), TEXT);
  Recorder& recorder = NewRecorder();
  std::optional<std::string> before;
  std::optional<std::string> after;
  recorder.BeforeEach([&](platform_settings_node* node) {
    const char* const name = platform_settings_node_name(node);
    const char* const text = platform_settings_node_string(node);
    if (name != nullptr && text != nullptr) {
      before = std::string(name) + "=" + text;
      ReadText(Second());
      platform_settings_set_string(Second().c_str(), OTHER_TEXT);
      platform_settings_node_string(node);
      platform_settings_node_int(node);
      after = std::string(name) + "=" + text;
    }
  });
  const Subscription subscription(First(), OnChange, recorder);
  WriteKey(First(), TEXT);
  Needs("SET-17", recorder.WaitForCount(1), "no event came");
  recorder.BeforeEach(nullptr);
  Needs("SET-11", before.has_value(), "a node had no name or no string");
  EXPECT_EQ(before, after) << "name and string, read before and after other calls";
}

TEST(Settings, SET_17_EachChangeCallsBackOnce) {
  ForEachRoot([](const std::string& key) {
    WriteKey(key, 0);
    Recorder& recorder = NewRecorder();
    const Subscription subscription(key, OnChange, recorder);
    ASSERT_EQ(subscription.Status(), 0);
    for (int i = 1; i <= CHANGES; ++i) {
      WriteKey(key, i);
    }
    EXPECT_TRUE(recorder.WaitForNumber(CHANGES)) << "the last change";
    Drain();
    for (int i = 1; i <= CHANGES; ++i) {
      EXPECT_EQ(recorder.CountOf(i), 1) << "calls for change " << i << " of " << CHANGES;
    }
  });
}

TEST(Settings, SET_18_UserDataComesBack) {
  Recorder& recorder = NewRecorder();
  Recorder& other = NewRecorder();
  const Subscription subscription(First(), OnChange, recorder);
  const Subscription otherSubscription(Second(), OnChange, other);
  const std::size_t strays = StrayCalls();
  WriteKey(First(), 1);
  WriteKey(Second(), 2);
  const bool hasBoth = WaitFor([&] {
    return recorder.Events().size() + other.Events().size() + StrayCalls() - strays >= 2;
  });
  Needs("SET-17", hasBoth, "an event did not come");
  EXPECT_EQ(StrayCalls(), strays) << "calls with what nobody gave";
  EXPECT_EQ(recorder.CountOf(1), 1) << "calls for the one key with what was given for it";
  EXPECT_EQ(other.CountOf(2), 1) << "calls for the other key with what was given for it";
}

TEST(Settings, SET_19_ASecondSubscriptionOfAPairReplacesItsUserData) {
  Recorder& older = NewRecorder();
  Recorder& newer = NewRecorder();
  const Subscription subscription(First(), OnChange, older);
  Needs("SET-17", subscription.Status() == 0, "a subscription failed");
  EXPECT_EQ(platform_settings_subscribe(First().c_str(), OnChange, &newer), 0);
  ChangeTwiceAndSettle(First());
  EXPECT_EQ(older.Events().size(), 0U) << "calls with the user data that was replaced";
  EXPECT_EQ(newer.Events().size(), 2U) << "calls with the newest user data, for two changes";
  platform_settings_unsubscribe(First().c_str(), OnChange);
  EXPECT_NE(platform_settings_unsubscribe(First().c_str(), OnChange), 0)
      << "the pair was subscribed twice over";
}

TEST(Settings, SET_20_UnsubscribingIsByKeyAndCallback) {
  Recorder& kept = NewRecorder();
  Recorder& keptOnOtherKey = NewRecorder();
  Subscription gone(First(), OnChange, NewRecorder());
  const Subscription otherCallback(First(), OnOtherChange, kept);
  const Subscription otherKey(Second(), OnChange, keptOnOtherKey);
  EXPECT_EQ(gone.Cancel(), 0);
  WriteKey(First(), TEXT);
  WriteKey(Second(), TEXT);
  EXPECT_TRUE(kept.WaitForCount(1)) << "the other callback of the key is not called any more";
  EXPECT_TRUE(keptOnOtherKey.WaitForCount(1)) << "the callback is not called for its other key";
}

TEST(Settings, SET_21_UnsubscribingWhatIsNotSubscribedFails) {
  EXPECT_NE(platform_settings_unsubscribe(Missing().c_str(), OnChange), 0) << "never subscribed";
  Subscription subscription(First(), OnChange, NewRecorder());
  Needs("SET-17", subscription.Status() == 0, "a subscription failed");
  EXPECT_NE(platform_settings_unsubscribe(First().c_str(), OnOtherChange), 0) << "other callback";
  EXPECT_NE(platform_settings_unsubscribe(Second().c_str(), OnChange), 0) << "other key";
  Needs("SET-20", subscription.Cancel() == 0, "an unsubscription failed");
  EXPECT_NE(platform_settings_unsubscribe(First().c_str(), OnChange), 0) << "not any more";
}

TEST(Settings, SET_22_AnUnsubscribedCallbackIsNotCalledAgain) {
  Recorder& recorder = NewRecorder();
  Subscription subscription(First(), OnChange, recorder);
  // One change is on its way when the subscription ends, the others come later.
  WriteKey(First(), TEXT);
  Needs("SET-20", subscription.Cancel() == 0, "an unsubscription failed");
  const std::size_t before = recorder.Events().size();
  ChangeTwiceAndSettle(First());
  EXPECT_EQ(recorder.Events().size(), before) << "calls, after the unsubscription and before it";
}

TEST(Settings, SET_23_EveryFunctionIsForAnyThread) {
  const std::string key = TheContext().declaration.SettingsRoots().back() + "/" + FIRST_NAME;
  WriteKey(key, TEXT);
  const std::vector<std::string> wrong = [&] {
    std::vector<std::string> all = FromManyThreads([&]() -> std::string {
      const bool isSet = platform_settings_set_string(key.c_str(), TEXT) == 0 &&
                         platform_settings_set_string(key.c_str(), OTHER_TEXT) == 0;
      const std::optional<std::string> read = ReadText(key);
      return isSet && (read == TEXT || read == OTHER_TEXT) ? "" : read.value_or("(none)");
    });
    all.erase(std::remove(all.begin(), all.end(), ""), all.end());
    return all;
  }();
  EXPECT_EQ(wrong, std::vector<std::string>{}) << "neither of the two values that are written";

  std::thread([] {
    Subscription subscription(First(), OnOtherChange, NewRecorder());
    EXPECT_EQ(subscription.Status(), 0) << "a subscription of another thread";
    EXPECT_EQ(subscription.Cancel(), 0) << "its end";
  }).join();
}

TEST(Settings, SET_26_ACallbackUsesTheStore) {
  WriteKey(Second(), 0);
  Recorder& recorder = NewRecorder();
  Recorder& other = NewRecorder();
  bool isServed = false;
  recorder.BeforeEach([&](platform_settings_node*) {
    isServed = platform_settings_unsubscribe(First().c_str(), OnChange) == 0 &&
               platform_settings_subscribe(Second().c_str(), OnOtherChange, &other) == 0 &&
               platform_settings_set_int(Second().c_str(), 1) == 0;
  });
  const Subscription subscription(First(), OnChange, recorder);
  WriteKey(First(), 1);
  Needs("SET-17", recorder.WaitForCount(1), "no event came");
  recorder.BeforeEach(nullptr);
  EXPECT_TRUE(isServed) << "end of its own subscription, another one, a write";
  EXPECT_TRUE(other.WaitForNumber(1)) << "the write, on the subscription made in the callback";
  ChangeTwiceAndSettle(First());
  EXPECT_EQ(recorder.Events().size(), 1U) << "calls after it ended its own subscription";
  platform_settings_unsubscribe(Second().c_str(), OnOtherChange);
}

TEST(Settings, SET_24_OtherProcessesReadWhatWasWritten) {
  NeedsSharedStore();
  ForEachRoot([](const std::string& key) {
    WriteKey(key, TEXT);
    EXPECT_EQ(RunProcess(Probe({probes::READ_TEXT, key})).output, std::string(TEXT) + "\n");
    WriteKey(key, NUMBER);
    EXPECT_EQ(RunProcess(Probe({probes::READ_INT, key})).output, std::to_string(NUMBER) + "\n");
    EXPECT_TRUE(RunProcess(Probe({probes::WRITE_TEXT, key, OTHER_TEXT})).Succeeded());
    EXPECT_EQ(ReadText(key), OTHER_TEXT) << "written by another process";
  });
}

TEST(Settings, SET_25_AChangeByAnotherProcessCallsBack) {
  NeedsSharedStore();
  ForEachRoot([](const std::string& key) {
    WriteKey(key, TEXT);
    Recorder& recorder = NewRecorder();
    const Subscription subscription(key, OnChange, recorder);
    Needs("SET-17", subscription.Status() == 0, "a subscription failed");
    Needs("SET-24", RunProcess(Probe({probes::WRITE_INT, key, std::to_string(NUMBER)})).Succeeded(),
          "another process could not write");
    ASSERT_TRUE(recorder.WaitForCount(1)) << "no event came";
    EXPECT_EQ(recorder.Events().front().number, NUMBER);
  });
}

}  // namespace conformance
