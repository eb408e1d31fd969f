#include <glib.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <memory>

#include "Settings.h"

namespace conformance {
namespace {

const Value A = Text("conformance");
const Value B = Text("another value");
constexpr int UNTOUCHED = -815;

Values Texts(std::initializer_list<const char*> texts) {
  Values values;
  std::transform(texts.begin(), texts.end(), std::back_inserter(values), Text);
  return values;
}

const Values NUMBERS = {Number(0),    Number(1),       Number(-1),     Number(2),
                        Number(4711), Number(INT_MAX), Number(INT_MIN)};
const Values TEXTS =
    Texts({"conformance", "", "another value", "caf\xc3\xa9 \xe2\x82\xac", "0", "12", "-1"});
const Values DIGITS = Texts({"12", "0", "-1", "1", "12 apples"});

/// What stores cut, strip, unquote or translate.
Values DifficultTexts() {
  Values values =
      Texts({"",           " ",      "  leading", "trailing  ", "line\n",  "\n",     "\n\n",
             "\nline",     "a\r\n",  "\t",        "\xff\xfe",   "caf\xe9", "a=b",    "# no comment",
             "\"quoted\"", "'q'",    "a\\nb",     "back\\",     "%s%n%d",  "(null)", "[section]",
             "$HOME",      "{a: 1}", "<a>&amp;"});
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
  return isRead ? Show(value) : value == UNTOUCHED ? FAILS : "fails, and changes the variable";
}

std::string SeenText(const std::string& key) {
  const char* const text = ReadText(key);
  return text != nullptr ? Show(text) : FAILS;
}

int WriteBoolean(const std::string& key, const Value& value) {
  return platform_settings_set_bool(key.c_str(), std::stoi(value.substr(1)));
}

enum class Expected { FAILURE, VALUE, KEY };

/// One row of the table below.
struct Row {
  const char* clause;
  const char* what;                          // is read
  int (*read)(const char* key, int* value);  // an integer of a key, or
  std::string Event::*part;                  // this of a node; of neither, a text of a key
  const Values& values;
  Expected expected;
  int (*write)(const std::string& key, const Value& value) = TryWrite;
};

void AskRow(const Row& row, const std::string& key, const Value& value) {
  const bool isText = value[0] == 't';
  TryWrite(key, isText ? Number(UNTOUCHED) : A);  // of the other kind before
  const std::string done = "wrote " + ShowValue(value) + " to " + key + "; ";
  std::string seen;
  if (row.part != nullptr) {
    const Subscription subscription(key);
    Write(key, value);
    Needs("SET-17", subscription->WaitForCount(1), "no event came for a write of " + key);
    seen = subscription->Events().front().*row.part;
  } else {
    const int status = row.write(key, value);
    const std::string needed = row.write != TryWrite ? row.clause : isText ? "SET-05" : "SET-08";
    Needs(needed, status == 0 || needed == row.clause, "a write failed");
    Same(done + "the status", 0, status);
    seen = row.read != nullptr ? IntegerRead(key, row.read) : SeenText(key);
  }
  const std::string rest = value.substr(1);
  const std::string expected = row.expected == Expected::FAILURE ? FAILS
                               : row.expected == Expected::KEY   ? key
                               : isText                          ? Show(rest)
                                                                 : rest;
  Holds(seen == expected, done + row.what, expected, seen);
}

const Row ROWS[] = {
    {"SET-04", "a string read", nullptr, nullptr, NUMBERS, Expected::FAILURE},
    {"SET-05", "a string read", nullptr, nullptr, TEXTS, Expected::VALUE},
    {"SET-06", "an integer read", platform_settings_get_int, nullptr, NUMBERS, Expected::VALUE},
    {"SET-08", "an integer read", platform_settings_get_int, nullptr, NUMBERS, Expected::VALUE},
    {"SET-09", "a boolean read", platform_settings_get_bool, nullptr, NUMBERS, Expected::VALUE},
    {"SET-10", "an integer read", platform_settings_get_int, nullptr, NUMBERS, Expected::VALUE,
     WriteBoolean},
    {"SET-11", "the node's name", nullptr, &Event::name, TEXTS, Expected::KEY},
    {"SET-13", "the node's string", nullptr, &Event::text, NUMBERS, Expected::FAILURE},
    {"SET-14", "the node's integer", nullptr, &Event::integer, NUMBERS, Expected::VALUE},
    {"SET-15", "the node's integer", nullptr, &Event::integer, TEXTS, Expected::FAILURE},
    {"SET-32", "an integer read", platform_settings_get_int, nullptr, DIGITS, Expected::FAILURE},
};

const bool ROWS_ARE_ASKED = [] {
  for (const Row& row : ROWS) {
    Question(row.clause, [&row] {
      for (const Value& value : row.values) {
        for (const std::string& key : Keys()) {
          AskRow(row, key, value);
        }
      }
    });
  }
  return true;
}();

// ---- Reads and writes

const Question SET_01("SET-01", [] {
  Write(Key(FIRST), A);
  Needs("SET-05", Read(Key(FIRST)) == A, "a text that was written was not read");
  char* const one = ReadText(Key(FIRST));
  char* const two = ReadText(Key(FIRST));
  Holds(one != two, "read a text twice", "two copies", "the same address twice");
  one[0] = 'C';
  SameValues("changed one copy, and looked at the other", {A}, {Text(two)});
  SameValues("changed a copy, and read the key again", {A}, {Read(Key(FIRST))});
});

const Help RELEASE("release-texts", [](const Arguments& arguments) {
  Write(arguments[0], A);  // a store of one process does not have it yet
  for (int i = 0; i < 100; ++i) {
    std::free(platform_settings_get_string(arguments[0].c_str()));
  }
});

const Question SET_02("SET-02", [] {
  Write(Key(FIRST), A);
  Helper("release-texts", {Key(FIRST)}).Reply("read a text and called free() with it, 100 times");
});

const Question SET_03("SET-03", [] {
  for (const char* const name : {MISSING, "irst", "first0"}) {
    for (const std::string& key : Keys(name)) {
      Write(Key(FIRST), A);
      Same("read the text of " + key + ", which was never written", std::string(FAILS),
           SeenText(key));
    }
  }
});

const Question SET_07("SET-07", [] {
  Write(Key(FIRST), A);
  for (const auto read : {platform_settings_get_int, platform_settings_get_bool}) {
    for (const char* const name : {FIRST, MISSING}) {
      Same("read a number of " + Key(name) + ", which holds none", std::string(FAILS),
           IntegerRead(Key(name), read));
    }
  }
});

const Question SET_31("SET-31", [] {
  for (const std::string& key : Keys()) {
    const Subscription subscription(key);
    for (const Value& value : DifficultTexts()) {
      Write(key, value);
      SameValues("wrote " + ShowValue(value) + " to " + key + ", and read it", {value},
                 {Read(key)});
    }
    Carries("wrote texts that are hard to keep", *subscription, DifficultTexts());
  }
});

const Question SET_37("SET-37", [] {
  Write(Key(FIRST), A);
  Write(Key(SECOND), Number(1));
  LeavesNothing("read a text, an integer and a missing key", [] {
    std::free(platform_settings_get_string(Key(FIRST).c_str()));
    IntegerRead(Key(SECOND), platform_settings_get_int);
    std::free(platform_settings_get_string(Key(MISSING).c_str()));
  });
  Recorder& recorder = Recorder::New(Key(FIRST));
  LeavesNothing("made a subscription and ended it", [&] { Subscription(recorder).Cancel(); });
});

const Question SET_38("SET-38", [] {
  for (const std::string& root : Roots()) {
    const Subscription subscription(root + "/" + FIRST);
    Values expected;
    Values came;
    for (const char* const name : ALIKE) {
      expected.push_back(Text(name));
      Write(root + "/" + name, expected.back());
    }
    for (const char* const name : ALIKE) {
      came.push_back(Read(root + "/" + name));
    }
    SameValues("wrote keys whose names are alike, and read them", expected, came);
    Carries("wrote keys whose names are alike", *subscription, {Text(FIRST)});
  }
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

void AreAllChanges(const std::string& key, bool isElsewhere, const Values& written) {
  const Subscription subscription(key);
  if (isElsewhere) {
    WriteElsewhere(key, written);
  }
  for (const Value& value : isElsewhere ? Values() : written) {
    Write(key, value);
  }
  Carries(std::string(isElsewhere ? "another process" : "this process") + " wrote " +
              Show(static_cast<int>(written.size())) + " values before any was delivered",
          *subscription, written);
}

const Question SET_12("SET-12", [] {
  for (const std::string& key : Keys()) {
    Write(key, Text("what was there before"));
    AreAllChanges(key, false, {A, Text(""), B, Number(1), Text("z")});
  }
});

/// By this process or another: a key's first value ever, and many that are each written twice.
const Question SET_28("SET-28", [] {
  Values twice = {A, A};
  for (int i = 0; i < 100; ++i) {
    twice.push_back(Number(i / 2));
  }
  for (const bool isElsewhere : {false, true}) {
    if (isElsewhere && !Declares("settings.shared", "yes")) {
      continue;
    }
    for (const std::string& root : Roots()) {
      AreAllChanges(root + "/" + FreshName() + (isElsewhere ? "b" : ""), isElsewhere, {A});
      AreAllChanges(root + "/" + FIRST, isElsewhere, twice);
    }
  }
});

const Question SET_16("SET-16", [] {
  Write(Key(SECOND), A);
  Values before;
  Values after;
  const Subscription subscription(Key(FIRST), OnChange, [&](platform_settings_node* node) {
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
  Write(Key(FIRST), A);
  Needs("SET-17", subscription->WaitForCount(1), "no event came");
  Needs("SET-11", !before.empty(), "a node had no name or no string");
  SameValues("name and string of a node, after other calls in its callback", before, after);
});

const Question SET_17("SET-17", [] {
  for (const std::string& key : Keys()) {
    Write(key, Text("from before the subscription"));
    Recorder& recorder = Recorder::New(key);
    Subscribes("subscribed " + key, recorder);
    Values written;
    for (int i = 0; i < 10; ++i) {
      written.push_back(i % 2 == 0 ? Number(i) : Text(Show(i)));
      Write(key, written.back());
      recorder.WaitForCount(i + 1);
    }
    Carries("subscribed, then wrote 10 values, each after the event before", recorder, written);
  }
});

const Question SET_18("SET-18", [] {
  const Subscription first(Key(FIRST));
  const Subscription second(Key(SECOND));
  Write(Key(FIRST), Number(1));
  Write(Key(SECOND), Number(2));
  const std::string done = "subscribed two keys with one callback, each with its own user data";
  try {
    Carries(done, *first, {Number(1)});
    Carries(done, *second, {Number(2)});
  } catch (const Answer& answer) {
    Holds(answer.needs != "SET-18", done, "the user data that was given", "other user data");
    throw;
  }
});

const Question SET_19("SET-19", [] {
  const std::string key = Key(FIRST);
  Recorder& newer = Recorder::New(key);
  const Subscription older(key);
  Subscribes("subscribed a pair again", newer);
  Write(key, Number(1));
  Write(key, Number(2));
  Carries("subscribed a pair twice; with the newest user data", newer, {Number(1), Number(2)});
  Same("subscribed a pair twice; events with the older user data", 0, older->Count());
  platform_settings_unsubscribe(key.c_str(), OnChange);
  Refuses("subscribed a pair twice, and ended it twice; the second end",
          platform_settings_unsubscribe(key.c_str(), OnChange));
});

const Question SET_20("SET-20", [] {
  Subscription gone(Key(FIRST));
  const Subscription otherCallback(Key(FIRST), OnOtherChange);
  const Subscription otherKey(Key(SECOND));
  Same("ended a subscription: the status", 0, gone.Cancel());
  Write(Key(FIRST), A);
  Write(Key(SECOND), A);
  Carries("ended the key's other callback", *otherCallback, {A});
  Carries("ended the callback's other key", *otherKey, {A});
});

const Question SET_21("SET-21", [] {
  const auto fails = [](const std::string& what, const std::string& name,
                        platform_settings_changed_cb callback) {
    Refuses("ended a subscription " + what,
            platform_settings_unsubscribe(Key(name).c_str(), callback));
  };
  fails("of a key that never had one", MISSING, OnChange);
  Subscription subscription(Key(FIRST));
  fails("with another callback", FIRST, OnOtherChange);
  fails("of another key", SECOND, OnChange);
  fails("of a key whose name begins so", "firs", OnChange);
  Needs("SET-20", subscription.Cancel() == 0, "an unsubscription failed");
  fails("that has ended", FIRST, OnChange);
});

void EndWithAnEventOnItsWay(const std::string& key) {
  const Subscription control(key, OnOtherChange);  // what others of the key get
  Subscription ended(key);
  Write(key, Number(1));
  Needs("SET-20", ended.Cancel() == 0, "an unsubscription failed");
  const int before = ended->Count();
  Write(key, Number(2));
  AllUntilNow(*control);
  Same("ended a subscription with an event on its way, and wrote again; calls", before,
       ended->Count());
  {
    const Subscription brief(key);
    Write(key, Number(3));
  }
  const Subscription again(key);
  Write(key, Number(4));
  Carries("wrote 3, ended the subscription, made it again, wrote 4", *again, {Number(4)});
}

/// Whichever of two callbacks of one event comes first ends the other's subscription.
void EndEachOther(const std::string& key) {
  const auto ends = [&](platform_settings_changed_cb other) {
    return [&, other](auto*) { platform_settings_unsubscribe(key.c_str(), other); };
  };
  const Subscription one(key, OnChange, ends(OnOtherChange));
  const Subscription two(key, OnOtherChange, ends(OnChange));
  Write(key, Number(1));
  Needs("SET-17", WaitFor([&] { return one->Count() + two->Count() >= 1; }), "no event came");
  Settle();
  Same("of two callbacks of one event, the first one ended the other; calls of both", 1,
       one->Count() + two->Count());
}

const Question SET_22("SET-22", [] {
  EndWithAnEventOnItsWay(Key(FIRST));
  EndEachOther(Key(FIRST));
  const Subscription control(Key(FIRST), OnOtherChange);
  const Subscription own(Key(FIRST), OnChange, [](auto*) {
    platform_settings_unsubscribe(Key(FIRST).c_str(), OnChange);
  });
  Write(Key(FIRST), Number(1));
  Write(Key(FIRST), Number(2));
  Carries("wrote 1 and 2", *control, {Number(1), Number(2)});
  Same("wrote 1 and 2; calls of a callback that ends its own subscription", 1, own->Count());
});

const Question SET_23("SET-23", [] {
  const std::string key = Key(FIRST);
  const Value longer = Text(std::string(5000, 'l'));
  const Subscription subscription(key);
  OnManyThreads([&] {
    Same("wrote a text: the status", 0, TryWrite(key, A) + TryWrite(key, longer));
    const Value came = Read(key);
    Holds(came == A || came == longer, "wrote two texts in turn, and read the key",
          "one of the two", ShowValue(came));
  });
  Same("4 threads wrote 200 times; events", 200,
       static_cast<int>(AllUntilNow(*subscription).size()));
  int status = 0;
  std::thread([&] {
    status = platform_settings_subscribe(key.c_str(), OnOtherChange, &*subscription);
    status += platform_settings_unsubscribe(key.c_str(), OnOtherChange);
  }).join();
  Same("subscribed on another thread, and ended that: the statuses", 0, status);
});

const Question SET_26("SET-26", [] {
  Write(Key(SECOND), Number(0));
  Recorder& other = Recorder::New(Key(SECOND));
  std::string failed;
  const Subscription subscription(Key(FIRST), OnChange, [&](auto*) {
    if (failed.empty()) {  // the first time
      failed = Read(Key(FIRST)) != Number(1) ? "a read"
               : platform_settings_subscribe(Key(SECOND).c_str(), OnOtherChange, &other) != 0
                   ? "a subscription"
               : TryWrite(Key(SECOND), Number(1)) != 0 ? "a write of another key"
               : TryWrite(Key(FIRST), Number(2)) != 0  ? "a write of its own key"
                                                       : "nothing";
    }
  });
  Write(Key(FIRST), Number(1));
  Needs("SET-17", subscription->WaitForCount(1), "no event came");
  Same("in a callback, read, subscribed and wrote; what failed", std::string("nothing"), failed);
  Carries("wrote 1, and 2 in the callback of that", *subscription, {Number(1), Number(2)});
  Carries("subscribed in a callback, and wrote there", other, {Number(1)});
  platform_settings_unsubscribe(Key(SECOND).c_str(), OnOtherChange);
});

const Question SET_29("SET-29", [] {
  for (const std::string& key : Keys(MISSING)) {
    Subscribes("subscribed " + key + ", which was never written", Recorder::New(key));
    Same("ended that: the status", 0, platform_settings_unsubscribe(key.c_str(), OnChange));
  }
});

const Question SET_30("SET-30", [] {
  std::vector<Recorder*> all;
  for (const char* const name : ALIKE) {
    for (const auto callback : {OnChange, OnOtherChange}) {
      all.push_back(&Recorder::New(Key(name)));
      Subscribes("made subscription number " + std::to_string(all.size()), *all.back(), callback);
    }
  }
  for (const char* const name : ALIKE) {
    Write(Key(name), Text(Key(name)));
  }
  for (const Recorder* const recorder : all) {
    const std::string& key = recorder->Key();
    recorder->WaitForCount(1);
    SameValues("made 16 subscriptions and wrote each key; events of " + key, {Text(key)},
               recorder->Carried());
    Same("made 16 subscriptions and wrote each key; the node's name", key,
         recorder->Events().front().name);
    platform_settings_unsubscribe(key.c_str(), OnChange);
    platform_settings_unsubscribe(key.c_str(), OnOtherChange);
  }
});

// ---- The main context

/// Subscribes on the default main context and, by another thread, on that thread's own; neither is
/// iterated before its turn.
void CallbacksComeWhereSubscribed(const std::string& key, const std::function<void()>& write) {
  const Subscription here(key, OnOtherChange);
  Recorder& there = Recorder::New(key);
  const std::unique_ptr<GMainContext, void (*)(GMainContext*)> context(g_main_context_new(),
                                                                       g_main_context_unref);
  int status = 0;
  std::thread([&] {
    g_main_context_push_thread_default(context.get());
    status = platform_settings_subscribe(key.c_str(), OnChange, &there);
    g_main_context_pop_thread_default(context.get());
  }).join();
  Needs("SET-23", status == 0, "a subscription of another thread failed");
  write();
  Same("subscribed on the main context, and did not iterate it; calls", 0, here->Count());
  Needs("SET-17", here->WaitForCount(1), "no event came");
  Settle();
  Same("subscribed on another thread's main context, and did not iterate it; calls", 0,
       there.Count());
  const auto hasCome = [&] {
    g_main_context_iteration(context.get(), FALSE);
    return there.Count() != 0;
  };
  Holds(WaitFor(hasCome), "then iterated that main context", "an event", "nothing");
  for (const Recorder* const recorder : {&*here, &there}) {
    Holds(recorder->Events().front().thread == std::this_thread::get_id(),
          "looked on which thread each callback came",
          "the one that iterates the subscriber's main context", "another thread");
  }
  platform_settings_unsubscribe(key.c_str(), OnChange);
}

const Question SET_36("SET-36", [] {
  if (Declares("settings.callbacks", "any-thread")) {
    Absent("callbacks come on any thread; the note at the end says what a host program must do");
  }
  CallbacksComeWhereSubscribed(Key(FIRST), [] { Write(Key(FIRST), A); });
  if (Declares("settings.shared", "yes")) {
    CallbacksComeWhereSubscribed(Key(FIRST), [] { WriteElsewhere(Key(FIRST), {A}); });
  }
});

}  // namespace
}  // namespace conformance
