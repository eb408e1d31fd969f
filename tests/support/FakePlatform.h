#ifndef ONDARO_TESTS_SUPPORT_FAKEPLATFORM_H
#define ONDARO_TESTS_SUPPORT_FAKEPLATFORM_H

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <variant>
#include <vector>

#include "platform/AppManager.h"
#include "platform/ContentDecryptionModule.h"
#include "platform/SettingsStore.h"

/// One call of the platform log: what was passed, and the prefix values on their own.
struct SLogEntry {
  int buffer;
  int priority;
  std::string tag;
  std::string format;
  std::string file;
  std::string function;
  int line;
  std::string body;  // formatted, without the prefix

  /// "6 ONDARO_PAL _GetProperty: key : SDR"
  std::string Text() const {
    return std::to_string(priority) + " " + tag + " " + function + ": " + body;
  }
};

using SettingsValue = std::variant<std::string, int>;

/// What a change callback is given: null name or value stand for a node that cannot be read.
struct platform_settings_node {
  std::optional<std::string> name;
  std::optional<SettingsValue> value;
};

struct SSubscription {
  platform_settings_changed_cb callback;
  void* userData;
};

/// What the set does, and what was asked of it.
struct SPlatform {
  bool m_isLogEchoed = false;  // to standard error, for exits

  std::map<std::string, SettingsValue> m_values;
  std::vector<std::string> m_storeCalls;
  std::function<void()> m_onStoreCall;  // may throw
  bool m_areStoreCallsFailing = false;
  std::map<std::string, SSubscription> m_subscriptions;

  std::optional<int> m_productYear;
  int m_powerState = 0;
  int m_appPid = -1;
  int m_setGroupResult = 0;
  std::vector<std::pair<int, int>> m_groupRequests;

  int m_supportStatus = 11;
  bool m_isCreateFailing = false;
  bool m_hasKeyInterface = true;
  int m_operationStatus = 0;
  int m_destroyStatus = 0;
  std::string m_key = "key", m_cert = "cert", m_sign = "sign", m_systemId = "system-id";
  std::vector<std::string> m_cdmCalls;
};

/// The set beneath the library under test: the test executable defines the seam's functions, so
/// the shipped library calls these. Everything is scripted and recorded here.
class FakePlatform : public SPlatform {
 public:
  static FakePlatform& Get();
  /// As it was in the beginning.
  void Reset();
  /// Whether this thread is in one of the set's own functions.
  static bool IsEntered();

  std::vector<SLogEntry> TakeLog();
  std::vector<std::string> TakeLogTexts();
  void Record(SLogEntry entry);
  std::atomic<bool> m_isLogDiscarded{false};
  std::atomic<int> m_nLogCalls{0};

  /// Writes the value and calls the subscriber, as the set's store does.
  void Change(const std::string& key, const SettingsValue& value);
  void Notify(const std::string& key, platform_settings_node* node);

 private:
  std::mutex m_mutex;
  std::vector<SLogEntry> m_log;
};

#endif
