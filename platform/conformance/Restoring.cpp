// What a run changes is saved before it and restored after it, by processes of their own: the
// tests may be interrupted, and a broken port may end them at any time.
#include <json/json.h>

#include <fstream>
#include <optional>
#include <string>
#include <variant>

#include "Judging.h"
#include "Probes.h"
#include "SettingsKeys.h"
#include "platform/DevicePower.h"
#include "platform/SettingsStore.h"
#include "platform/SystemInfo.h"

namespace conformance {
namespace {

constexpr char SETTINGS[] = "settings";
constexpr char POWER[] = "power";
constexpr char FEATURE[] = "feature";

/// A string, an integer, or null for a missing key.
Json::Value ReadKey(const std::string& key) {
  int number = 0;
  if (platform_settings_get_int(key.c_str(), &number) == 0) {
    return number;
  }
  const std::optional<std::string> text = ReadText(key);
  return text ? Json::Value(*text) : Json::Value();
}

bool WriteKey(const std::string& key, const Json::Value& value) {
  return value.isInt() ? platform_settings_set_int(key.c_str(), value.asInt()) == 0
                       : platform_settings_set_string(key.c_str(), value.asCString()) == 0;
}

/// The seam has no way to remove a key; where the port offers none either, the kit's own stay,
/// with an empty text.
bool RemoveKey(const TouchedKey& touched) {
  if (const std::string* command = TheContext().declaration.Find(keys::SETTINGS_REMOVE)) {
    return RunShell(Fill(*command, TheContext().WithScratch({{"key", touched.key}}))).Succeeded();
  }
  return !touched.isOwn || WriteKey(touched.key, "");
}

bool RestoreKey(const TouchedKey& touched, const Json::Value& saved) {
  if (ReadKey(touched.key) == saved) {
    return true;
  }
  return saved.isNull() ? RemoveKey(touched) : WriteKey(touched.key, saved);
}

bool RestoreByAction(const char* key, const Json::Value& saved) {
  const std::string* const action = TheContext().declaration.Find(key);
  return action == nullptr || !saved.isInt() ||
         Action(*action).Apply(
             TheContext().WithScratch({{"value", std::to_string(saved.asInt())}}));
}

Json::Value PowerState() {
  const int state = platform_power_get_state();
  return state >= 0 ? Json::Value(state) : Json::Value();
}

Json::Value Feature() {
  int value = 0;
  const std::string* const key = TheContext().declaration.Find(keys::FEATURE_KEY);
  const bool isThere =
      key != nullptr && platform_system_info_get_custom_int(key->c_str(), &value) == 0;
  return isThere ? Json::Value(value) : Json::Value();
}

}  // namespace

bool probes::SaveState(const Arguments& arguments) {
  Json::Value saved;
  for (const TouchedKey& touched : TouchedKeys(TheContext().declaration)) {
    saved[SETTINGS][touched.key] = ReadKey(touched.key);
  }
  saved[POWER] = PowerState();
  saved[FEATURE] = Feature();
  std::ofstream file(arguments[0]);
  file << saved;
  return file.flush().good();
}

bool probes::RestoreState(const Arguments& arguments) {
  Json::Value saved;
  std::ifstream file(arguments[0]);
  if (!file || !Json::parseFromStream(Json::CharReaderBuilder(), file, &saved, nullptr)) {
    return false;
  }
  bool isRestored = PowerState() == saved[POWER] || RestoreByAction(keys::POWER_SET, saved[POWER]);
  isRestored &= Feature() == saved[FEATURE] || RestoreByAction(keys::FEATURE_SET, saved[FEATURE]);
  for (const TouchedKey& touched : TouchedKeys(TheContext().declaration)) {
    isRestored &= RestoreKey(touched, saved[SETTINGS][touched.key]);
  }
  return isRestored;
}

}  // namespace conformance
