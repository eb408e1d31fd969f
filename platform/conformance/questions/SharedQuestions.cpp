// What more than one process of a set has of the store.
#include <algorithm>
#include <csignal>
#include <cstdlib>

#include "Settings.h"

namespace conformance {
namespace {

constexpr int MANY = 50;
const Value A = Text("of this run");

void ReplyAll(const Values& values) {
  std::string reply;
  for (const Value& value : values) {
    reply += value + '\0';
  }
  Reply(reply);
}

Values Split(const std::string& reply) {
  Values values;
  for (std::size_t at = 0; at < reply.size(); at += values.back().size() + 1) {
    values.emplace_back(reply.c_str() + at);
  }
  return values;
}

// ---- What other processes do

/// A key, and values to write to it.
const Help WRITE("write", [](const Arguments& arguments) {
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    Write(arguments[0], arguments[i]);
  }
});

const Help WRITE_AND_DIE("write-and-die", [](const Arguments& arguments) {
  Write(arguments[0], arguments[1]);
  std::raise(SIGKILL);
});

/// A key, and two values to write in turn for some time.
const Help REWRITE("rewrite", [](const Arguments& arguments) {
  Helper::SayReady();
  const gint64 deadline = g_get_monotonic_time() + TheContext().patience.count() * 250 + 400'000;
  while (g_get_monotonic_time() < deadline) {
    Write(arguments[0], arguments[1]);
    Write(arguments[0], arguments[2]);
  }
});

/// Keys to read.
const Help READ("read", [](const Arguments& arguments) {
  Values values;
  std::transform(arguments.begin(), arguments.end(), std::back_inserter(values), Read);
  ReplyAll(values);
});

/// A key, and the value of the last event to collect.
const Help COLLECT("collect", [](const Arguments& arguments) {
  const Subscription subscription(arguments[0]);
  Helper::SayReady();
  subscription->WaitForLast(arguments[1]);
  Settle();
  ReplyAll(subscription->Carried());
});

// ---- Questions

/// A key below each root; absent where a process has the store to itself, and says so.
Arguments SharedKeys() {
  if (Declared("settings.shared") == "yes") {
    return Keys();
  }
  Write(Key(FIRST), A);
  Holds(Split(Ask("read", {Key(FIRST)})) != Values{A},
        "another process read " + Key(FIRST) + ", which 'settings.shared' says it does not share",
        "not what this process wrote", ShowValue(A));
  Absent("'settings.shared' declares that processes do not share the store");
}

const Question SET_24("SET-24", [] {
  for (const std::string& key : SharedKeys()) {
    for (const Value& value : {A, Number(-1), Text(LongestText()), Text(""), Text("12")}) {
      Write(key, value);
      SameValues("wrote " + key + ", and read it in another process", {value},
                 Split(Ask("read", {key})));
      Write(key, Text("of neither"));
      WriteElsewhere(key, {value});
      SameValues("wrote " + key + " in another process, and read it", {value}, {Read(key)});
    }
    Helper("write-and-die", {key, Text("last words")}).End(TheContext().patience);
    SameValues("another process wrote " + key + ", and was killed at once", {Text("last words")},
               Split(Ask("read", {key})));
  }
});

const Question SET_35("SET-35", [] {
  for (const std::string& key : SharedKeys()) {
    for (int i = 0; i < 4; ++i) {
      // Of the same length, within the same second, and of both kinds.
      for (const Value& value : {Text("text " + Show(i)), Number(1000 + i)}) {
        Read(key);
        WriteElsewhere(key, {value});
        SameValues("read " + key + ", had another process write it, and read it again", {value},
                   {Read(key)});
      }
    }
  }
});

const Question SET_40("SET-40", [] {
  for (const std::string& key : SharedKeys()) {
    const Values written = {Text(std::string(100, 'a')), Text(std::string(20000, 'b'))};
    Write(key, written[0]);
    Helper writer("rewrite", {key, written[0], written[1]});
    Needs("SET-24", writer.IsReady(), "another process did not begin to write");
    const gint64 deadline = g_get_monotonic_time() + TheContext().patience.count() * 1000;
    while (!writer.HasReplied() && g_get_monotonic_time() < deadline) {
      char* const text = platform_settings_get_string(key.c_str());
      const Value came = text != nullptr ? Text(text) : NOTHING;
      std::free(text);
      Holds(std::count(written.begin(), written.end(), came) == 1,
            "another process wrote 100 bytes of 'a' and 20000 of 'b' in turn; read " + key,
            "always one of the two", ShowValue(came));
    }
  }
});

const Question SET_25("SET-25", [] {
  for (const std::string& key : SharedKeys()) {
    const Values values = {Number(1), Text("two"), Text(LongestText()), Number(-1), Text("end")};
    const Subscription subscription(key);
    Helper one("collect", {key, values.back()});
    Helper two("collect", {key, values.back()});
    Needs("SET-17", one.IsReady() && two.IsReady(), "a subscription of another process failed");
    WriteElsewhere(key, values);
    subscription->WaitForLast(values.back());
    Settle();
    const std::string done = "three processes subscribed " + key + ", a fourth wrote it; ";
    SameValues(done + "events of this process", values, subscription->Carried());
    for (Helper* const other : {&one, &two}) {
      SameValues(done + "events of another", values, Split(other->Reply(done)));
    }
  }
});

void TwoWritersAtOnce(const std::string& key) {
  std::map<char, Values> written;
  for (int i = 0; i < MANY; ++i) {
    written['a'].push_back(Text("a" + Show(i)));
    written['b'].push_back(Text("b" + Show(i)));
  }
  const Subscription subscription(key);
  const Subscription other(key, OnOtherChange);
  Helper writer = Writing(key, written['a']);
  for (const Value& value : written['b']) {
    Write(key, value);
  }
  const std::string done = "two processes wrote " + key + " at the same time; ";
  writer.Reply(done);
  const Value stored = Read(key);
  const Values came = AllUntilNow(*subscription);
  for (const auto& [letter, values] : written) {
    Values own;
    std::copy_if(came.begin(), came.end(), std::back_inserter(own),
                 [by = letter](const Value& value) { return value.substr(1, 1)[0] == by; });
    SameValues(done + "events of the writes of one", values, own);
  }
  SameValues(done + "the last event, beside what the key then held", {stored},
             {came.empty() ? NOTHING : came.back()});
  WaitFor([&] { return other->Count() >= subscription->Count(); });
  SameValues(done + "events of another callback", subscription->Carried(), other->Carried());
}

void OneWriterAfterTheOther(const std::string& key) {
  Write(key, Text("before"));
  const Subscription subscription(key);
  Values expected = {Text("A"), Text("B"), Text("A"), Text("B"), Text("B")};
  WriteElsewhere(key, expected);
  for (const int turn : {1, 2}) {
    Write(key, Number(turn));
    WriteElsewhere(key, {Number(-turn)});
    expected.insert(expected.end(), {Number(turn), Number(-turn)});
  }
  Carries("another process wrote A, B, A, B, B; then both in turn", *subscription, expected);
}

const Question SET_27("SET-27", [] {
  for (const std::string& key : SharedKeys()) {
    OneWriterAfterTheOther(key);
    TwoWritersAtOnce(key);
  }
});

// ---- A restart

void AskAfterRestart(const std::string& lifetime, bool doesOutlast) {
  for (const std::string& key : SharedKeys()) {
    if (key.rfind(lifetime, 0) != 0) {
      continue;
    }
    const std::string other = key + "2";
    const std::string reply = NewFile();
    std::string reading;
    for (const std::string& word : Helper::Command("read", {key, other}, reply)) {
      reading += "'" + word + "' ";
    }
    const Values kept = {A, Number(815)};
    Write(key, kept[0]);
    Write(other, kept[1]);
    const std::string& restart = Declared("settings.restart");
    const bool isWithin = restart.find("{command}") != std::string::npos;
    RunShell(Filled(isWithin ? restart : restart + " && exec {command}", {{"command", reading}}));
    SameValues("wrote " + key + " and another key, restarted the set, and read them",
               doesOutlast ? kept : Values{NOTHING, NOTHING},
               Split(Helper::Replied(reply).value_or(Answer()).text));
  }
}

const Question SET_33("SET-33", [] { AskAfterRestart("db/", true); });
const Question SET_34("SET-34", [] { AskAfterRestart("memory/", false); });

}  // namespace
}  // namespace conformance
