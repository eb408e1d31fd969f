#ifndef ONDARO_TESTS_SUPPORT_FAKEPLATFORM_H
#define ONDARO_TESTS_SUPPORT_FAKEPLATFORM_H

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/SettingsStore.h"

/// One message of the platform log, its prefix taken apart.
struct SLogEntry {
  int priority;
  std::string tag, file, function, body;

  /// "6 ONDARO_PAL _GetProperty: key : SDR"
  std::string Text() const {
    return std::to_string(priority) + " " + tag + " " + function + ": " + body;
  }
};

using SettingsValue = std::variant<std::string, int>;

/// What a change callback is given: null name or value stand for a node that cannot be read.
struct platform_settings_node {
  const char* name;
  std::optional<SettingsValue> value;
};

/// The set beneath the library under test: the test executable defines the seam's functions, so
/// the shipped library calls these. Everything is scripted and recorded here; a call that no set
/// would understand ends the process.
struct FakePlatform {
  static FakePlatform& Get();
  /// As it was in the beginning.
  void Reset() { *this = {}; }
  /// Whether this thread is in one of the set's own functions.
  static bool IsEntered();

  std::vector<SLogEntry> TakeLog();

  /// Writes the value and calls the subscriber, as the set's store does.
  void Change(const std::string& key, const SettingsValue& value);
  void Notify(const std::string& key, platform_settings_node* node) const;

  std::vector<SLogEntry> m_log;

  /// The settings and, as numbers, the set's features by their keys, "power" and the process ids of
  /// applications by theirs.
  std::map<std::string, SettingsValue> m_values;
  /// Called with each call of the store, "get_int KEY": whether it works. May throw.
  std::function<bool(const std::string& call)> m_onStoreCall;
  std::map<std::string, std::pair<platform_settings_changed_cb, void*>> m_subscriptions;

  int m_supportStatus = 11;
  bool m_isCreateFailing = false;
  bool m_hasKeyInterface = true;
  int m_operationStatus = 0;
  int m_destroyStatus = 0;
  int m_nInstances = 0;
  /// What the module appends to the strings that it is to fill.
  std::string m_key = "key", m_cert = "cert", m_sign = "sign", m_systemId = "system-id";
  std::string m_signed;  // the key and the hash
};

#endif
