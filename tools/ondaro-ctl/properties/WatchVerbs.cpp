#include <list>
#include <set>

#include "properties/Properties.h"
#include "support/Feed.h"
#include "support/Verbs.h"

namespace ondaro::ctl {
namespace {

struct WatchOptions {
  std::vector<std::string> names;
  Limits limits;
};

void Show(Feed& feed, const Property& property, std::optional<std::string>& value,
          const std::string& changed) {
  feed.Show(
      JsonObject({{"name", property.name}, {"old", JsonOrNull(value)}, {"new", JsonText(changed)}}),
      property.name, value.value_or("(unknown)") + " → " + changed);
  value = changed;
}

/// Each once, also when it is named twice.
std::set<const Property*> Selected(const std::vector<std::string>& names) {
  std::set<const Property*> selected;
  for (const std::string& name : names) {
    selected.insert(&FindProperty(name));
  }
  for (const Property& property : CATALOGUE) {
    if (names.empty() && property.HasEvents()) {
      selected.insert(&property);
    }
  }
  return selected;
}

void RunWatch(const Output& output, const WatchOptions& options) {
  Feed feed(output, options.limits);
  std::list<std::optional<std::string>> values;
  std::list<PropertySubscription> subscriptions;
  for (const Property* property : Selected(options.names)) {
    std::optional<std::string>& value = values.emplace_back();
    subscriptions.emplace_back(feed.Loop(), *property, [&, property](const std::string& changed) {
      Show(feed, *property, value, changed);
    });
    value = Read(*property);
  }
  output.Ready();
  feed.Run();
}

struct WaitOptions {
  std::string condition;
  std::optional<double> seconds;
};

struct Condition {
  enum class Wanted { Change, Equal, NotEqual };

  const Property* property;
  Wanted wanted;
  std::string value;

  bool HoldsFor(const std::optional<std::string>& present) const {
    // A value that cannot be read fulfils neither.
    return wanted != Wanted::Change && present && (*present == value) == (wanted == Wanted::Equal);
  }
};

Condition ParseCondition(const std::string& text) {
  using Wanted = Condition::Wanted;
  const std::size_t equal = text.find('=');
  if (equal == std::string::npos) {
    return {&FindProperty(text), Wanted::Change, {}};
  }
  const bool isNegated = equal > 0 && text[equal - 1] == '!';
  const Property& property = FindProperty(text.substr(0, isNegated ? equal - 1 : equal));
  const std::string value = text.substr(equal + 1);
  RequireTaken(property, value, "");
  return {&property, isNegated ? Wanted::NotEqual : Wanted::Equal, value};
}

void RunWait(const Output& output, const WaitOptions& options) {
  const Condition condition = ParseCondition(options.condition);
  std::optional<std::string> fulfilled;
  MainLoop loop;
  // Subscribed before the first read, so that no change slips between the two.
  const PropertySubscription subscription(loop, *condition.property, [&](const std::string& value) {
    if (!fulfilled &&
        (condition.wanted == Condition::Wanted::Change || condition.HoldsFor(value))) {
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
  if (!fulfilled) {
    throw Failure("interrupted before " + options.condition + " came about");
  }
  output.Value(JsonObject({{"name", condition.property->name}, {"value", JsonText(*fulfilled)}}),
               *fulfilled);
}

}  // namespace

void AddWatchVerbs(CLI::App& app, Session& session) {
  auto [watch, watched] =
      AddVerb(app, session, "watch", "Print changes of properties as they happen", RunWatch);
  watch.add_option("NAME", watched.names, "Properties; all that have change events when left out");
  AddLimits(watch, watched.limits);

  auto [wait, awaited] =
      AddVerb(app, session, "wait", "Wait until a property has a value, or changes", RunWait);
  wait.add_option("CONDITION", awaited.condition, "NAME=VALUE, NAME!=VALUE, or NAME for a change")
      ->required();
  AddTimeout(wait, awaited.seconds);
}

}  // namespace ondaro::ctl
