#include <glib.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>

#include "Settings.h"

namespace conformance {
namespace {

const Value A = Text("conformance");
const Value B = Text("another value");
constexpr int UNTOUCHED = -815;

Values Numbers() {
  Values values;
  for (const int number : {0, 1, -1, 2, 4711, INT_MAX, INT_MIN}) {
    values.push_back(Number(number));
  }
  return values;
}

Values Texts() {
  return {A, Text(""), B, Text("caf\xc3\xa9 \xe2\x82\xac"), Text("0"), Text("12"), Text("-1")};
}

Values Digits() { return {Text("12"), Text("0"), Text("-1"), Text("1"), Text("12 apples")}; }

/// What stores cut, strip, unquote or translate.
Values DifficultTexts() {
  Values values;
  for (const char* const text :
       {"",           " ",      "  leading", "trailing  ", "line\n",  "\n",     "\n\n",
        "\nline",     "a\r\n",  "\t",        "\xff\xfe",   "caf\xe9", "a=b",    "# no comment",
        "\"quoted\"", "'q'",    "a\\nb",     "back\\",     "%s%n%d",  "(null)", "[section]",
        "$HOME",      "{a: 1}", "<a>&amp;"}) {
    values.push_back(Text(text));
  }
  for (const std::size_t size : {255U, 256U, 1023U, 1024U, 4095U, 4096U, 4097U, 16384U, 65535U}) {
    values.push_back(Text(std::string(size - 1, 'x') + "e"));
  }
  values.push_back(Text(LongestText()));
  return values;
}

// ---- One value, and all that can be read of it

std::string IntegerRead(const std::string& key, int (*read)(const char*, int*)) {
  int value = UNTOUCHED;
  const bool isRead = read(key.c_str(), &value) == 0;
  return isRead ? Show(value) : value == UNTOUCHED ? "fails" : "fails, and changes the variable";
}

using Seen = std::string (*)(const std::string& key, const Event* event);
std::string SeenText(const std::string& key, const Event* /*event*/) {
  const char* const text = platform_settings_get_string(key.c_str());
  return text != nullptr ? Show(text) : "fails";
}
std::string SeenInteger(const std::string& key, const Event* /*event*/) {
  return IntegerRead(key, platform_settings_get_int);
}
std::string SeenBoolean(const std::string& key, const Event* /*event*/) {
  return IntegerRead(key, platform_settings_get_bool);
}
std::string SeenNodeName(const std::string& key, const Event* event) {
  return event->name != nullptr && event->name == key ? "the key" : Show(event->name);
}
std::string SeenNodeText(const std::string& /*key*/, const Event* event) {
  return event->text == NOTHING ? "fails" : Show(event->text.substr(1));
}
std::string SeenNodeInteger(const std::string& /*key*/, const Event* event) {
  if (event->number == -1 && event->error != 0) {
    return "fails";
  }
  return Show(event->number) + (event->error != 0 || event->errorKept != Event::KEPT
                                    ? ", and errno is not left alone"
                                    : "");
}

int WriteBoolean(const std::string& key, const Value& value) {
  return platform_settings_set_bool(key.c_str(), std::stoi(value.substr(1)));
}

/// One row of the table below.
struct Row {
  const char* clause;
  const char* what;  // is read
  Seen see;
  Values (*values)();
  const char* expected;  // the value itself if null
  int (*write)(const std::string& key, const Value& value) = TryWrite;
};

void AskRow(const Row& row) {
  const bool isOfNode = std::strncmp(row.what, "the node", 8) == 0;
  ForEachRoot([&](const std::string& key) {
    for (const Value& value : row.values()) {
      // Of the other kind before.
      TryWrite(key, value[0] == 't' ? Number(UNTOUCHED) : A);
      Recorder& recorder = Recorder::New();
      std::vector<Event> events(1);
      if (isOfNode) {
        const Subscription subscription(key, OnChange, recorder);
        Write(key, value);
        Needs("SET-17", recorder.WaitForCount(1), "no event came for a write of " + key);
        events = recorder.Events();
      } else {
        const int status = row.write(key, value);
        const bool isOfWrites = std::strstr("SET-05 SET-08 SET-10", row.clause) != nullptr;
        Needs(value[0] == 't' ? "SET-05" : "SET-08", status == 0 || isOfWrites, "a write failed");
        Same("wrote " + ShowValue(value) + " to " + key + "; the status", 0, status);
      }
      const std::string rest = value.substr(1);
      const std::string own = value[0] == 't' ? Show(rest) : rest;
      const std::string seen = row.see(key, &events.front());
      const std::string expected = row.expected != nullptr ? row.expected : own;
      Holds(seen == expected, "wrote " + ShowValue(value) + " to " + key + "; " + row.what,
            expected, seen);
    }
  });
}

const Row ROWS[] = {
    {"SET-04", "a string read", SeenText, Numbers, "fails"},
    {"SET-05", "a string read", SeenText, Texts, nullptr},
    {"SET-06", "an integer read", SeenInteger, Numbers, nullptr},
    {"SET-08", "an integer read", SeenInteger, Numbers, nullptr},
    {"SET-09", "a boolean read", SeenBoolean, Numbers, nullptr},
    {"SET-10", "an integer read", SeenInteger, Numbers, nullptr, WriteBoolean},
    {"SET-11", "the node's name", SeenNodeName, Texts, "the key"},
    {"SET-13", "the node's string", SeenNodeText, Numbers, "fails"},
    {"SET-14", "the node's integer", SeenNodeInteger, Numbers, nullptr},
    {"SET-15", "the node's integer", SeenNodeInteger, Texts, "fails"},
    {"SET-32", "an integer read", SeenInteger, Digits, "fails"},
};

const bool ROWS_ARE_ASKED = [] {
  for (const Row& row : ROWS) {
    Question(row.clause, [&row] { AskRow(row); });
  }
  return true;
}();

// ---- Reads and writes

const Question SET_01("SET-01", [] {
  Write(Key(FIRST), A);
  char* const one = platform_settings_get_string(Key(FIRST).c_str());
  char* const two = platform_settings_get_string(Key(FIRST).c_str());
  Needs("SET-05", one != nullptr && two != nullptr, "a text that was written was not read");
  if (one == nullptr || two == nullptr) {
    return;  // Needs() has said so
  }
  Holds(one != two, "read a text twice", "two copies", "the same address twice");
  one[0] = 'C';
  Same("changed one copy, and looked at the other", A, Text(two));
  Same("changed a copy, and read the key again", A, Read(Key(FIRST)));
});

const Help RELEASE("release-texts", [](const Arguments& arguments) {
  Write(arguments[0], A);  // a store of one process does not have it yet
  for (int i = 0; i < 100; ++i) {
    std::free(platform_settings_get_string(arguments[0].c_str()));
  }
  return "";
});

const Question SET_02("SET-02", [] {
  Write(Key(FIRST), A);
  Helper("release-texts", {Key(FIRST)}).Reply("read a text and called free() with it, 100 times");
});

const Question SET_03("SET-03", [] {
  for (const char* const name : {MISSING, "irst", "first0"}) {
    ForEachRoot(
        [](const std::string& key) {
          Write(Key(FIRST), A);
          Same("read the text of " + key + ", which was never written", std::string("fails"),
               SeenText(key, nullptr));
        },
        name);
  }
});

const Question SET_07("SET-07", [] {
  Write(Key(FIRST), A);
  for (const Seen see : {SeenInteger, SeenBoolean}) {
    for (const char* const name : {FIRST, MISSING}) {
      Same("read a number of " + Key(name) + ", which holds none", std::string("fails"),
           see(Key(name), nullptr));
    }
  }
});

const Question SET_31("SET-31", [] {
  ForEachRoot([](const std::string& key) {
    Recorder& recorder = Recorder::New();
    const Subscription subscription(key, OnChange, recorder);
    for (const Value& value : DifficultTexts()) {
      Write(key, value);
      const Value came = Read(key);
      Holds(came == value, "wrote " + ShowValue(value) + " to " + key + ", and read it",
            ShowValue(value), ShowValue(came));
    }
    Carries("wrote texts that are hard to keep", key, recorder, DifficultTexts());
  });
});

const Question SET_37("SET-37", [] {
  Write(Key(FIRST), A);
  Write(Key(SECOND), Number(1));
  LeavesNothing("read a text, an integer and a missing key", [] {
    std::free(platform_settings_get_string(Key(FIRST).c_str()));
    IntegerRead(Key(SECOND), platform_settings_get_int);
    std::free(platform_settings_get_string(Key(MISSING).c_str()));
  });
  Recorder& recorder = Recorder::New();
  LeavesNothing("made a subscription and ended it",
                [&] { Subscription(Key(FIRST), OnChange, recorder).Cancel(); });
});

const Question SET_38("SET-38", [] {
  ForEachRoot([](const std::string& first) {
    const std::string root = first.substr(0, first.rfind('/') + 1);
    Recorder& recorder = Recorder::New();
    const Subscription subscription(first, OnChange, recorder);
    Values expected;
    Values came;
    for (const char* const name : ALIKE) {
      expected.push_back(Text(name));
      Write(root + name, expected.back());
    }
    for (const char* const name : ALIKE) {
      came.push_back(Read(root + name));
    }
    SameList("wrote keys whose names are alike, and read them", expected, came, ShowValue);
    Carries("wrote keys whose names are alike", first, recorder, {Text(FIRST)});
  });
});

/// Looks only: these are the set's and the receiver's.
const Question SET_39("SET-39", [] {
  Write(Key(FIRST), A);
  for (const Asked& asked : AskedOfSets("key")) {
    const Value came = Read(asked.name);
    Holds(came == NOTHING || (came[0] == 't') == (asked.value == "text"), "read " + asked.name,
          asked.value + ", or nothing at all", ShowValue(came));
  }
});

// ---- Events and subscriptions

const Question SET_12("SET-12", [] {
  ForEachRoot([](const std::string& key) {
    Write(key, Text("what was there before"));
    Recorder& recorder = Recorder::New();
    const Subscription subscription(key, OnChange, recorder);
    const Values values = {A, Text(""), B, Number(1), Text("z")};
    for (const Value& value : values) {
      Write(key, value);
    }
    Carries("wrote several values before any was delivered", key, recorder, values);
  });
});

const Question SET_16("SET-16", [] {
  Write(Key(SECOND), A);
  Recorder& recorder = Recorder::New();
  Values before;
  Values after;
  recorder.SetHook([&](platform_settings_node* node) {
    const char* const name = platform_settings_node_name(node);
    const char* const text = platform_settings_node_string(node);
    if (name != nullptr && text != nullptr) {
      before = {Text(name), Text(text)};
      Read(Key(SECOND));
      TryWrite(Key(SECOND), B);
      platform_settings_node_string(node);
      platform_settings_node_int(node);
      after = {Text(name), Text(text)};
    }
  });
  const Subscription subscription(Key(FIRST), OnChange, recorder);
  Write(Key(FIRST), A);
  Needs("SET-17", recorder.WaitForCount(1), "no event came");
  recorder.SetHook(nullptr);
  Needs("SET-11", !before.empty(), "a node had no name or no string");
  SameList("name and string of a node, after other calls in its callback", before, after,
           ShowValue);
});

const Question SET_17("SET-17", [] {
  ForEachRoot([](const std::string& key) {
    Write(key, Text("from before the subscription"));
    Recorder& recorder = Recorder::New();
    Same("subscribed " + key + ": the status", 0,
         platform_settings_subscribe(key.c_str(), OnChange, &recorder));
    Values written;
    for (int i = 0; i < 10; ++i) {
      written.push_back(i % 2 == 0 ? Number(i) : Text(Show(i)));
      Write(key, written.back());
      recorder.WaitForCount(i + 1);
    }
    Carries("subscribed, then wrote 10 values, each after the event before", key, recorder,
            written);
    platform_settings_unsubscribe(key.c_str(), OnChange);
  });
});

const Question SET_18("SET-18", [] {
  Recorder& recorder = Recorder::New();
  Recorder& other = Recorder::New();
  const Subscription subscription(Key(FIRST), OnChange, recorder);
  const Subscription ofOther(Key(SECOND), OnChange, other);
  Write(Key(FIRST), Number(1));
  Write(Key(SECOND), Number(2));
  const std::string done = "subscribed two keys with one callback, each with its own user data";
  try {
    Carries(done, Key(FIRST), recorder, {Number(1)});
    Carries(done, Key(SECOND), other, {Number(2)});
  } catch (const Answer& answer) {
    Holds(answer.needs != "SET-18", done, "the user data that was given", "other user data");
    throw;
  }
});

const Question SET_19("SET-19", [] {
  Recorder& older = Recorder::New();
  Recorder& newer = Recorder::New();
  const std::string key = Key(FIRST);
  const Subscription subscription(key, OnChange, older);
  Same("subscribed a pair again: the status", 0,
       platform_settings_subscribe(key.c_str(), OnChange, &newer));
  Write(key, Number(1));
  Write(key, Number(2));
  Carries("subscribed a pair twice; with the newest user data", key, newer, {Number(1), Number(2)});
  Same("subscribed a pair twice; events with the older user data", 0, older.Count());
  platform_settings_unsubscribe(key.c_str(), OnChange);
  Holds(platform_settings_unsubscribe(key.c_str(), OnChange) != 0,
        "subscribed a pair twice, and ended it twice", "the second end fails", "0");
});

const Question SET_20("SET-20", [] {
  Recorder& kept = Recorder::New();
  Recorder& keptOnOtherKey = Recorder::New();
  Subscription gone(Key(FIRST), OnChange, Recorder::New());
  const Subscription otherCallback(Key(FIRST), OnOtherChange, kept);
  const Subscription otherKey(Key(SECOND), OnChange, keptOnOtherKey);
  Same("ended a subscription: the status", 0, gone.Cancel());
  Write(Key(FIRST), A);
  Write(Key(SECOND), A);
  Carries("ended the key's other callback", Key(FIRST), kept, {A});
  Carries("ended the callback's other key", Key(SECOND), keptOnOtherKey, {A});
});

const Question SET_21("SET-21", [] {
  const auto fails = [](const std::string& what, const std::string& name,
                        platform_settings_changed_cb callback) {
    Holds(platform_settings_unsubscribe(Key(name).c_str(), callback) != 0,
          "ended a subscription " + what, "a status other than 0", "0");
  };
  fails("of a key that never had one", MISSING, OnChange);
  Subscription subscription(Key(FIRST), OnChange, Recorder::New());
  fails("with another callback", FIRST, OnOtherChange);
  fails("of another key", SECOND, OnChange);
  fails("of a key whose name begins so", "firs", OnChange);
  Needs("SET-20", subscription.Cancel() == 0, "an unsubscription failed");
  fails("that has ended", FIRST, OnChange);
});

void EndWithAnEventOnItsWay(const std::string& key) {
  Recorder& control = Recorder::New();  // what others of the key get
  const Subscription controlled(key, OnOtherChange, control);
  Recorder& ended = Recorder::New();
  Subscription subscription(key, OnChange, ended);
  Write(key, Number(1));
  Needs("SET-20", subscription.Cancel() == 0, "an unsubscription failed");
  const int before = ended.Count();
  Write(key, Number(2));
  AllUntilNow(key, control);
  Same("ended a subscription with an event on its way, and wrote again; calls", before,
       ended.Count());
  Recorder& again = Recorder::New();
  {
    const Subscription short_lived(key, OnChange, Recorder::New());
    Write(key, Number(3));
  }
  const Subscription resubscribed(key, OnChange, again);
  Write(key, Number(4));
  Carries("wrote 3, ended the subscription, made it again, wrote 4", key, again, {Number(4)});
}

/// Whichever of two callbacks of one event comes first ends the other's subscription.
void EndEachOther(const std::string& key) {
  Recorder& one = Recorder::New();
  Recorder& two = Recorder::New();
  const Subscription first(key, OnChange, one);
  const Subscription second(key, OnOtherChange, two);
  one.SetHook([&](auto*) { platform_settings_unsubscribe(key.c_str(), OnOtherChange); });
  two.SetHook([&](auto*) { platform_settings_unsubscribe(key.c_str(), OnChange); });
  Write(key, Number(1));
  Needs("SET-17", WaitFor([&] { return one.Count() + two.Count() >= 1; }), "no event came");
  Settle();
  one.SetHook(nullptr);
  two.SetHook(nullptr);
  Same("of two callbacks of one event, the first one ended the other; calls of both", 1,
       one.Count() + two.Count());
}

const Question SET_22("SET-22", [] {
  EndWithAnEventOnItsWay(Key(FIRST));
  EndEachOther(Key(FIRST));
  Recorder& own = Recorder::New();
  own.SetHook([](auto*) { platform_settings_unsubscribe(Key(FIRST).c_str(), OnChange); });
  Recorder& control = Recorder::New();
  const Subscription controlled(Key(FIRST), OnOtherChange, control);
  const Subscription subscription(Key(FIRST), OnChange, own);
  Write(Key(FIRST), Number(1));
  Write(Key(FIRST), Number(2));
  Carries("wrote 1 and 2", Key(FIRST), control, {Number(1), Number(2)});
  own.SetHook(nullptr);
  Same("wrote 1 and 2; calls of a callback that ends its own subscription", 1, own.Count());
});

const Question SET_23("SET-23", [] {
  const std::string key = Key(FIRST);
  const Value longer = Text(std::string(5000, 'l'));
  Recorder& recorder = Recorder::New();
  const Subscription subscription(key, OnChange, recorder);
  OnManyThreads([&] {
    Same("wrote a text: the status", 0, TryWrite(key, A) + TryWrite(key, longer));
    char* const text = platform_settings_get_string(key.c_str());
    const Value came = text != nullptr ? Text(text) : NOTHING;
    Holds(came == A || came == longer, "wrote two texts in turn, and read the key",
          "one of the two", ShowValue(came));
    std::free(text);
  });
  Same("4 threads wrote 200 times; events", 200,
       static_cast<int>(AllUntilNow(key, recorder).size()));
  int status = 0;
  std::thread([&] {
    status = platform_settings_subscribe(key.c_str(), OnOtherChange, &recorder);
    status += platform_settings_unsubscribe(key.c_str(), OnOtherChange);
  }).join();
  Same("subscribed on another thread, and ended that: the statuses", 0, status);
});

const Question SET_26("SET-26", [] {
  Write(Key(SECOND), Number(0));
  Recorder& recorder = Recorder::New();
  Recorder& other = Recorder::New();
  std::string failed = "nothing";
  recorder.SetHook([&](auto*) {
    recorder.SetHook(nullptr);
    failed = Read(Key(FIRST)) != Number(1) ? "a read"
             : platform_settings_subscribe(Key(SECOND).c_str(), OnOtherChange, &other) != 0
                 ? "a subscription"
             : TryWrite(Key(SECOND), Number(1)) != 0 ? "a write of another key"
             : TryWrite(Key(FIRST), Number(2)) != 0  ? "a write of its own key"
                                                     : "nothing";
  });
  const Subscription subscription(Key(FIRST), OnChange, recorder);
  Write(Key(FIRST), Number(1));
  Needs("SET-17", recorder.WaitForCount(1), "no event came");
  Same("in a callback, read, subscribed and wrote; what failed", std::string("nothing"), failed);
  Carries("wrote 1, and 2 in the callback of that", Key(FIRST), recorder, {Number(1), Number(2)});
  Carries("subscribed in a callback, and wrote there", Key(SECOND), other, {Number(1)});
  platform_settings_unsubscribe(Key(SECOND).c_str(), OnOtherChange);
});

void AreAllChanges(const std::string& key, bool isElsewhere, const Values& written) {
  Recorder& recorder = Recorder::New();
  const Subscription subscription(key, OnChange, recorder);
  Arguments arguments = written;
  arguments.insert(arguments.begin(), key);
  if (isElsewhere) {
    Ask("write", arguments);
  }
  for (const Value& value : isElsewhere ? Values() : written) {
    Write(key, value);
  }
  Carries(std::string(isElsewhere ? "another process" : "this process") + " wrote " +
              Show(static_cast<int>(written.size())) + " values before any was delivered",
          key, recorder, written);
}

/// By this process or another: a key's first value ever, and many that are each written twice.
const Question SET_28("SET-28", [] {
  Values twice = {A, A};
  for (int i = 0; i < 100; ++i) {
    twice.push_back(Number(i / 2));
  }
  for (const bool isElsewhere : {false, true}) {
    if (isElsewhere && !TheContext().declaration.Is("settings.shared", "yes")) {
      continue;
    }
    const auto ask = [&](const Values& written) {
      return [&, isElsewhere](const std::string& key) { AreAllChanges(key, isElsewhere, written); };
    };
    ForEachRoot(ask({A}), FreshName() + (isElsewhere ? "b" : ""));
    ForEachRoot(ask(twice));
  }
});

const Question SET_29("SET-29", [] {
  ForEachRoot(
      [](const std::string& key) {
        Same("subscribed " + key + ", which was never written: the status", 0,
             platform_settings_subscribe(key.c_str(), OnChange, &Recorder::New()));
        Same("ended that: the status", 0, platform_settings_unsubscribe(key.c_str(), OnChange));
      },
      MISSING);
});

const Question SET_30("SET-30", [] {
  std::multimap<std::string, Recorder*> all;
  for (const char* const name : ALIKE) {
    for (const auto callback : {OnChange, OnOtherChange}) {
      Recorder& recorder = *all.emplace(Key(name), &Recorder::New())->second;
      Same("made subscription number " + Show(static_cast<int>(all.size())) + ": the status", 0,
           platform_settings_subscribe(Key(name).c_str(), callback, &recorder));
    }
  }
  for (const char* const name : ALIKE) {
    Write(Key(name), Text(Key(name)));
  }
  for (const auto& [key, recorder] : all) {
    recorder->WaitForCount(1);
    SameList("made 16 subscriptions and wrote each key; events of " + key, {Text(key)},
             recorder->Carried(), ShowValue);
    Same("made 16 subscriptions and wrote each key; the node's name", Show(key),
         Show(recorder->Events().front().name));
    platform_settings_unsubscribe(key.c_str(), OnChange);
    platform_settings_unsubscribe(key.c_str(), OnOtherChange);
  }
});

// ---- The main context

/// A thread with a main context of its own, which it iterates only when told.
class OtherThread {
 public:
  OtherThread(const std::string& key, Recorder& recorder)
      : m_thread([this, key, &recorder] {
          GMainContext* const context = g_main_context_new();
          g_main_context_push_thread_default(context);
          m_status = platform_settings_subscribe(key.c_str(), OnChange, &recorder);
          m_isReady = true;
          for (; !m_mayEnd; g_usleep(1000)) {
            if (m_mayIterate) {
              g_main_context_iteration(context, FALSE);
            }
          }
          platform_settings_unsubscribe(key.c_str(), OnChange);
          g_main_context_pop_thread_default(context);
          g_main_context_unref(context);
        }) {
    while (!m_isReady) {
      g_usleep(1000);
    }
    Needs("SET-23", m_status == 0 || !(m_mayEnd = true), "a subscription of another thread failed");
  }
  ~OtherThread() {
    m_mayEnd = true;
    m_thread.join();
  }
  OtherThread(const OtherThread&) = delete;
  OtherThread& operator=(const OtherThread&) = delete;

  std::thread::id Id() const { return m_thread.get_id(); }
  void Iterate() { m_mayIterate = true; }

 private:
  std::atomic<bool> m_isReady{false};
  std::atomic<bool> m_mayIterate{false};
  std::atomic<bool> m_mayEnd{false};
  std::atomic<int> m_status{-1};
  std::thread m_thread;
};

void CallbacksComeWhereSubscribed(const std::string& key, const std::function<void()>& write) {
  Recorder& here = Recorder::New();
  Recorder& there = Recorder::New();
  const Subscription subscription(key, OnOtherChange, here);
  OtherThread other(key, there);
  write();
  Same("subscribed on the main context, and did not iterate it; calls", 0, here.Count());
  Needs("SET-17", here.WaitForCount(1), "no event came");
  Settle();
  Same("subscribed on another thread's main context, and did not iterate it; calls", 0,
       there.Count());
  other.Iterate();
  Holds(there.WaitForCount(1), "then iterated that main context", "an event", "nothing");
  const bool isRight = here.Events().front().thread == std::this_thread::get_id() &&
                       there.Events().front().thread == other.Id();
  Holds(isRight, "looked on which thread each callback came",
        "the one that iterates the subscriber's main context", "another thread");
}

const Question SET_36("SET-36", [] {
  if (TheContext().declaration.Is("settings.callbacks", "any-thread")) {
    Absent("callbacks come on any thread; the note at the end says what a host program must do");
  }
  CallbacksComeWhereSubscribed(Key(FIRST), [] { Write(Key(FIRST), A); });
  if (TheContext().declaration.Is("settings.shared", "yes")) {
    CallbacksComeWhereSubscribed(Key(FIRST), [] { Ask("write", {Key(FIRST), A}); });
  }
});

}  // namespace
}  // namespace conformance
