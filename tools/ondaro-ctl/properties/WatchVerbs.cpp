#include <list>
#include <map>

#include "Feed.h"
#include "Verbs.h"
#include "properties/Properties.h"

namespace ondaro::ctl {
namespace {

void Show(Feed& feed, const Property& property, std::optional<std::string>& value,
          const std::string& changed) {
  feed.Show(
      JsonObject({{"name", property.name}, {"old", JsonOrNull(value)}, {"new", JsonText(changed)}}),
      property.name, value.value_or("(unknown)") + " → " + changed);
  value = changed;
}

void RunWatch(const Output& output, const FeedOptions& options) {
  Feed feed(output, options);
  std::map<const Property*, std::optional<std::string>> values;  // one, also when it is named twice
  for (const std::string& name : options.names) {
    values[&FindProperty(name)];
  }
  for (const Property& property : CATALOGUE) {
    if (options.names.empty() && property.HasEvents()) {
      values[&property];
    }
  }
  std::list<PropertySubscription> subscriptions;
  for (auto& entry : values) {
    subscriptions.emplace_back(feed.Loop(), *entry.first, [&](const std::string& changed) {
      Show(feed, *entry.first, entry.second, changed);
    });
    entry.second = Read(*entry.first);
  }
  output.Ready();
  feed.Run();
}

struct WaitOptions {
  std::string condition;
  std::optional<double> seconds;
};

struct Condition {
  const Property* property;
  std::optional<std::string> value;  // nothing for any change
  bool isNegated;

  /// A value that cannot be read fulfils none.
  bool HoldsFor(const std::optional<std::string>& present) const {
    return value && present && (present == value) != isNegated;
  }
};

Condition ParseCondition(const std::string& text) {
  const std::size_t equal = text.find('=');
  if (equal == std::string::npos) {
    return {&FindProperty(text), {}, false};
  }
  const bool isNegated = equal > 0 && text[equal - 1] == '!';
  const Property& property = FindProperty(text.substr(0, equal - (isNegated ? 1 : 0)));
  const std::string value = text.substr(equal + 1);
  RequireTaken(property, value, "");
  return {&property, value, isNegated};
}

void RunWait(const Output& output, const WaitOptions& options) {
  const Condition condition = ParseCondition(options.condition);
  std::optional<std::string> fulfilled;
  MainLoop loop;
  // Subscribed before the first read, so that no change slips between the two.
  const PropertySubscription subscription(loop, *condition.property, [&](const std::string& value) {
    if (!fulfilled && (!condition.value || condition.HoldsFor(value))) {
      fulfilled = value;
      loop.Stop();
    }
  });
  const std::optional<std::string> present = Read(*condition.property);
  if (condition.HoldsFor(present)) {
    fulfilled = present;
  } else {
    output.Note("waiting");
    loop.Run(options.seconds, options.condition + " did not come about in time");
  }
  Require(fulfilled.has_value(), "interrupted before " + options.condition + " came about");
  output.Value(JsonObject({{"name", condition.property->name}, {"value", JsonText(*fulfilled)}}),
               *fulfilled);
}

}  // namespace

void AddWatchVerbs(CLI::App& app, Session& session) {
  AddFeed(AddVerb(app, session, "watch", "Print changes of properties as they happen", RunWatch),
          "NAME", "Properties; all that have change events when left out");

  auto [wait, awaited] =
      AddVerb(app, session, "wait", "Wait until a property has a value, or changes", RunWait);
  wait.add_option("CONDITION", awaited.condition, "NAME=VALUE, NAME!=VALUE, or NAME for a change")
      ->required();
  AddTimeout(wait, awaited.seconds);
}

}  // namespace ondaro::ctl
