#include <charconv>
#include <list>

#include "MainLoop.h"
#include "Text.h"
#include "Verbs.h"
#include "ondaro/pal/CPALUtils.h"

namespace ondaro::ctl {
namespace {

using NOndaroPAL::CPALUtils;

struct StoreOptions {
  std::string key;
  std::string value;
  bool isInt = false;
};

struct StoreWatchOptions {
  std::vector<std::string> keys;
  Limits limits;
};

int ParseInt(const std::string& text) {
  int value = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || rest != end) {
    throw Failure(ExitCode::Usage, "'" + text + "' is not a whole number of 32 bits");
  }
  return value;
}

void StoreGet(const Output& output, const StoreOptions& options) {
  Json::Value object;
  std::string text;
  int number = 0;
  const bool isRead = options.isInt ? CPALUtils::SetregGetInt(options.key, number)
                                    : CPALUtils::SetregGetStr(options.key, text);
  if (!isRead) {
    throw Failure(ExitCode::Failed,
                  "'" + options.key + "' could not be read: it is not there, it holds " +
                      (options.isInt ? "text (leave out --int)" : "a number (add --int)") +
                      ", or the settings store is out of order; '--log error' shows more");
  }
  object["key"] = options.key;
  object["value"] = options.isInt ? Json::Value(number) : JsonText(text);
  output.Result(options.isInt ? std::to_string(number) : text, object);
}

void StoreSet(const Output& /*output*/, const StoreOptions& options) {
  const bool isWritten = options.isInt
                             ? CPALUtils::SetregSetInt(options.key, ParseInt(options.value))
                             : CPALUtils::SetregSetStr(options.key, options.value);
  if (!isWritten) {
    throw Failure(ExitCode::Failed,
                  "'" + options.key + "' could not be written; '--log error' shows why");
  }
}

/// Shows every write to the keys named.
class StoreWatch {
 public:
  StoreWatch(const Output& output, const Limits& limits) : m_output(output), m_limits(limits) {}

  void Run(const std::vector<std::string>& keys) {
    std::list<Subscription> subscriptions;
    for (const std::string& key : keys) {
      subscriptions.emplace_back(*this, key);
    }
    m_output.Ready();
    m_loop.Run(m_limits.seconds, "the time is over");
  }

 private:
  class Subscription {
   public:
    Subscription(StoreWatch& watch, const std::string& key) : m_key(key) {
      if (!CPALUtils::RegisterSetregChangedCb(key, OnChanged, &watch)) {
        throw Failure(ExitCode::Failed, "the settings store refused the subscription to '" + key +
                                            "'; '--log error' shows why");
      }
    }
    ~Subscription() { CPALUtils::DeregisterSetregChangedCb(m_key, OnChanged); }

    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

   private:
    const std::string& m_key;
  };

  static void OnChanged(platform_settings_node* node, void* userData) {
    auto* const pThis = static_cast<StoreWatch*>(userData);
    pThis->m_loop.Protect([&] { pThis->Show(node); });
  }

  void Show(platform_settings_node* node) {
    std::string key;
    std::string text;
    int number = 0;
    Json::Value value;
    CPALUtils::GetSetregKeyFromKeynode(node, key);
    if (CPALUtils::GetSetregStrFromKeynode(node, text)) {
      value = JsonText(text);
    } else if (CPALUtils::GetSetregIntFromKeynode(node, number)) {
      value = number;
      text = std::to_string(number);
    }
    Print(key, text, value);
    if (++m_shown == m_limits.count) {
      m_loop.Stop();
    }
  }

  void Print(const std::string& key, const std::string& text, const Json::Value& value) const {
    const std::string time = Now();
    Json::Value object;
    object["time"] = time;
    object["key"] = key;
    object["value"] = value;
    m_output.Result(time + " " + m_output.Emphasis(key) + " " + OneLine(text), object);
  }

  const Output& m_output;
  const Limits& m_limits;
  std::uint64_t m_shown = 0;
  MainLoop m_loop;
};

void RunStoreWatch(const Output& output, const StoreWatchOptions& options) {
  StoreWatch(output, options.limits).Run(options.keys);
}

CLI::App& AddKeyVerb(CLI::App& store, const std::string& name, const std::string& description,
                     StoreOptions& options) {
  CLI::App& verb = *store.add_subcommand(name, description);
  verb.add_option("KEY", options.key, "The settings key, as in db/menu/network/name")->required();
  verb.add_flag("--int", options.isInt, "The key holds a number");
  return verb;
}

}  // namespace

void AddStoreVerbs(CLI::App& app, Session& session) {
  CLI::App& store = *app.add_subcommand("store", "Read, write and watch raw settings keys");
  store.require_subcommand(1);

  auto options = std::make_shared<StoreOptions>();
  OnVerb(AddKeyVerb(store, "get", "Print a key's value", *options), session, options, StoreGet);
  CLI::App& set = AddKeyVerb(store, "set", "Write a key", *options);
  set.add_option("VALUE", options->value, "Its new value")->required();
  OnVerb(set, session, options, StoreSet);

  auto watched = std::make_shared<StoreWatchOptions>();
  CLI::App& watch = *store.add_subcommand("watch", "Print every write to keys as it happens");
  watch.add_option("KEY", watched->keys, "The settings keys")->required();
  AddLimits(watch, watched->limits);
  OnVerb(watch, session, watched, RunStoreWatch);
}

}  // namespace ondaro::ctl
