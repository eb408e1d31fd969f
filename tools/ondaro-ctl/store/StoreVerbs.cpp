#include <charconv>
#include <list>

#include "ondaro/pal/CPALUtils.h"
#include "properties/Properties.h"
#include "support/Feed.h"

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
                      ", or the settings store is out of order" + SeeLog());
  }
  object["key"] = JsonText(options.key);
  object["value"] = options.isInt ? Json::Value(number) : JsonText(text);
  output.Value(object, options.isInt ? std::to_string(number) : text);
}

void StoreSet(const Output& /*output*/, const StoreOptions& options) {
  const bool isWritten = options.isInt
                             ? CPALUtils::SetregSetInt(options.key, ParseInt(options.value))
                             : CPALUtils::SetregSetStr(options.key, options.value);
  if (!isWritten) {
    throw Failure(ExitCode::Failed, "'" + options.key + "' could not be written" + SeeLog());
  }
}

/// A subscription that shows every write to a key.
class Shown {
 public:
  Shown(Feed& feed, const std::string& key) : m_key(key) {
    if (!CPALUtils::RegisterSetregChangedCb(key, OnChanged, &feed)) {
      throw Failure(ExitCode::Failed,
                    "the settings store refused the subscription to '" + key + "'" + SeeLog());
    }
  }
  ~Shown() { CPALUtils::DeregisterSetregChangedCb(m_key, OnChanged); }

  Shown(const Shown&) = delete;
  Shown& operator=(const Shown&) = delete;

 private:
  static void OnChanged(platform_settings_node* node, void* userData) {
    auto& feed = *static_cast<Feed*>(userData);
    feed.Loop().Protect([&] { Show(feed, node); });
  }

  static void Show(Feed& feed, platform_settings_node* node) {
    std::string key;
    std::string text;
    int number = 0;
    Json::Value object;
    CPALUtils::GetSetregKeyFromKeynode(node, key);
    object["key"] = JsonText(key);
    object["value"] = Json::Value();
    if (CPALUtils::GetSetregStrFromKeynode(node, text)) {
      object["value"] = JsonText(text);
    } else if (CPALUtils::GetSetregIntFromKeynode(node, number)) {
      object["value"] = number;
      text = std::to_string(number);
    }
    feed.Show(object, key, text);
  }

  std::string m_key;
};

void StoreWatch(const Output& output, const StoreWatchOptions& options) {
  Feed feed(output, options.limits);
  std::list<Shown> subscriptions;
  for (const std::string& key : options.keys) {
    subscriptions.emplace_back(feed, key);
  }
  output.Ready();
  feed.Run();
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
  OnVerb(watch, session, watched, StoreWatch);
}

}  // namespace ondaro::ctl
