#include <list>

#include "Feed.h"
#include "ondaro/pal/CPALUtils.h"
#include "properties/Properties.h"

namespace ondaro::ctl {
namespace {

using NOndaroPAL::CPALUtils;

struct StoreOptions {
  std::string key;
  std::string value;
  bool isInt = false;
};

int ParseInt(const std::string& text) {
  gint64 value = 0;
  const bool isInt =
      g_ascii_string_to_signed(text.c_str(), 10, INT32_MIN, INT32_MAX, &value, nullptr) != FALSE;
  Require(isInt, "'" + text + "' is not a whole number of 32 bits", ExitCode::Usage);
  return static_cast<int>(value);
}

void StoreGet(const Output& output, const StoreOptions& options) {
  std::string text;
  int number = 0;
  const bool isRead = options.isInt ? CPALUtils::SetregGetInt(options.key, number)
                                    : CPALUtils::SetregGetStr(options.key, text);
  RequireOfSet(isRead, "'" + options.key + "' could not be read: it is not there, it holds " +
                           (options.isInt ? "text (leave out --int)" : "a number (add --int)") +
                           ", or the settings store is out of order");
  const Json::Value value = options.isInt ? Json::Value(number) : JsonText(text);
  output.Value(JsonObject({{"key", JsonText(options.key)}, {"value", value}}),
               options.isInt ? std::to_string(number) : text);
}

void StoreSet(const Output& /*output*/, const StoreOptions& options) {
  const bool isWritten = options.isInt
                             ? CPALUtils::SetregSetInt(options.key, ParseInt(options.value))
                             : CPALUtils::SetregSetStr(options.key, options.value);
  RequireOfSet(isWritten, "'" + options.key + "' could not be written");
}

/// A subscription that shows every write to a key.
class Shown {
 public:
  Shown(Feed& feed, const std::string& key) : m_key(key) {
    RequireOfSet(CPALUtils::RegisterSetregChangedCb(key, OnChanged, &feed),
                 "the settings store refused the subscription to '" + key + "'");
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
    Json::Value value;
    CPALUtils::GetSetregKeyFromKeynode(node, key);
    if (CPALUtils::GetSetregStrFromKeynode(node, text)) {
      value = JsonText(text);
    } else if (CPALUtils::GetSetregIntFromKeynode(node, number)) {
      value = number;
      text = std::to_string(number);
    }
    feed.Show(JsonObject({{"key", JsonText(key)}, {"value", value}}), key, text);
  }

  std::string m_key;
};

void StoreWatch(const Output& output, const FeedOptions& options) {
  Feed feed(output, options);
  std::list<Shown> subscriptions;
  for (const std::string& key : options.names) {
    subscriptions.emplace_back(feed, key);
  }
  output.Ready();
  feed.Run();
}

CLI::App& AddKey(CLI::App& verb, StoreOptions& options) {
  verb.add_option("KEY", options.key, "The settings key, as in db/menu/network/name")->required();
  verb.add_flag("--int", options.isInt, "The key holds a number");
  return verb;
}

// ---- What the set says about itself
// --------------------------------------------------------------

std::optional<std::string> Ask(bool (*read)(std::string&)) {
  std::string value;
  return read(value) ? std::optional(value) : std::nullopt;
}

void Device(const Output& output, const NoOptions&) {
  const std::optional<std::string> year = Ask(CPALUtils::GetProductYear);
  const std::optional<std::string> model = Ask(CPALUtils::GetModelId);
  const std::optional<std::string> directory = StateDirectory();
  const bool isReset = CPALUtils::IsOndaroInitReset();
  const bool isUsable = CPALUtils::IsValidPowerState();
  if (output.IsJson()) {
    Json::Value object = JsonObject({{"product_year", JsonOrNull(year)},
                                     {"model_id", JsonOrNull(model)},
                                     {"init_reset", isReset},
                                     {"power_usable", isUsable}});
    if (directory) {
      object["state_directory"] = JsonOrNull(directory);
    }
    output.Result(object, {});
    return;
  }
  output.Line({{}, "product year  ", year.value_or("(unknown)")});
  output.Line({{}, "model id      ", model.value_or("(unknown)")});
  output.Line({{}, "init reset    ", isReset ? "yes" : "no"});
  output.Line({{}, "power usable  ", isUsable ? "yes" : "no"});
  if (directory) {
    output.Line({{}, "state in      ", *directory});
  }
}

}  // namespace

void AddStoreVerbs(CLI::App& app, Session& session) {
  CLI::App& store = *app.add_subcommand("store", "Read, write and watch raw settings keys");
  store.require_subcommand(1);

  auto [get, read] = AddVerb(store, session, "get", "Print a key's value", StoreGet);
  AddKey(get, read);
  auto [set, written] = AddVerb(store, session, "set", "Write a key", StoreSet);
  AddKey(set, written).add_option("VALUE", written.value, "Its new value")->required();

  AddFeed(AddVerb(store, session, "watch", "Print every write to keys as it happens", StoreWatch),
          "KEY", "The settings keys")
      .required();

  AddVerb(app, session, "device", "Print what the set says about itself", Device);
}

}  // namespace ondaro::ctl
