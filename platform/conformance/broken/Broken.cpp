// Ports that each break one clause, over the port this is linked with: the functions of the seam
// are defined here, for the kit and for the port itself, and pass on to the port's own but for
// the one fault that ONDARO_BROKEN names. CMakeLists.txt says which clause each must fail.
#include <dlfcn.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/ContentDecryptionModule.h"
#include "platform/Log.h"
#include "platform/SettingsStore.h"

namespace {

bool Has(const char* fault) {
  static const char* const named = std::getenv("ONDARO_BROKEN");
  return named != nullptr && std::strcmp(named, fault) == 0;
}

/// The port's own function.
template <typename Function>
Function* Real(Function* /*type*/, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

#define REAL(function) Real(&(function), #function)

struct Subscriber {
  platform_settings_changed_cb callback;
  void* userData;
  bool isSubscribed;
  int changes;
};

/// The subscriptions as the kit made them; the port has one a key, of this table.
struct Table {
  std::recursive_mutex mutex;
  std::map<std::string, std::vector<Subscriber>> subscribers;
  std::map<std::string, std::string> texts;  // the last one of each key
  std::string stale;
};

Table& TheTable() {
  static Table table;
  return table;
}

Subscriber* Find(const std::string& key, platform_settings_changed_cb callback) {
  for (Subscriber& subscriber : TheTable().subscribers[key]) {
    if (subscriber.callback == callback) {
      return &subscriber;
    }
  }
  return nullptr;
}

bool IsAnySubscribed(const std::string& key) {
  const std::vector<Subscriber>& all = TheTable().subscribers[key];
  return std::any_of(all.begin(), all.end(),
                     [](const Subscriber& subscriber) { return subscriber.isSubscribed; });
}

bool IsLost(Subscriber& subscriber) {
  return Has("missing-event") && ++subscriber.changes % 3 == 0;
}

void RememberText(platform_settings_node* node, const std::string& key) {
  const char* const text = REAL(platform_settings_node_string)(node);
  Table& table = TheTable();
  table.stale = table.texts[key];
  table.texts[key] = text != nullptr ? text : "";
}

void OnChange(platform_settings_node* node, void* /*unused*/) {
  Table& table = TheTable();
  const std::lock_guard lock(table.mutex);
  const std::string key = REAL(platform_settings_node_name)(node);
  RememberText(node, key);
  std::vector<Subscriber> called;
  for (Subscriber& subscriber : table.subscribers[key]) {
    if ((subscriber.isSubscribed || Has("late-callback")) && !IsLost(subscriber)) {
      called.push_back(subscriber);
    }
  }
  for (const Subscriber& subscriber : called) {
    subscriber.callback(node, Has("wrong-user-data") ? &table : subscriber.userData);
  }
}

/// The port reads keys of its own, too.
bool IsOfKit(const std::string& key) {
  const std::string name = key.substr(key.rfind('/') + 1);
  return name == "first" || name == "second";
}

/// A write of a key that this process wrote before.
bool IsRewritten(const char* key) {
  static std::mutex mutex;
  static std::set<std::string> written;
  const std::lock_guard lock(mutex);
  return !written.insert(key).second;
}

}  // namespace

int platform_log_print(int buffer, int priority, const char* tag, const char* format, ...) {
  char text[4096];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (Has("blocking-log")) {
    pollfd writable{STDERR_FILENO, POLLOUT, 0};
    poll(&writable, 1, -1);
  }
  return REAL(platform_log_print)(buffer, priority, tag, "%s", text);
}

char* platform_settings_get_string(const char* key) {
  char* const text = REAL(platform_settings_get_string)(key);
  if (text == nullptr || !IsOfKit(key) || !Has("foreign-string")) {
    return text;
  }
  // Within a block of its own, as a text with a header in front would be.
  const std::size_t size = std::strlen(text) + 1;
  char* const block = static_cast<char*>(std::malloc(16 + size));
  std::memcpy(block + 16, text, size);
  std::free(text);
  return block + 16;
}

int platform_settings_set_string(const char* key, const char* value) {
  if (Has("lost-write") && IsRewritten(key)) {
    return 0;
  }
  const std::string text = value;
  return REAL(platform_settings_set_string)(
      key, Has("truncated-string") ? text.substr(0, 255).c_str() : value);
}

int platform_settings_get_int(const char* key, int* value) {
  const int status = REAL(platform_settings_get_int)(key, value);
  if (status != 0 && Has("touched-value")) {
    *value = 0;
  }
  return status;
}

int platform_settings_get_bool(const char* key, int* value) {
  if (Has("crashing-read")) {
    std::abort();
  }
  while (Has("endless-read")) {
    pause();
  }
  return REAL(platform_settings_get_bool)(key, value);
}

int platform_settings_set_bool(const char* key, int value) {
  const int status = REAL(platform_settings_set_bool)(key, value);
  return Has("inverted-status") ? static_cast<int>(status == 0) : status;
}

const char* platform_settings_node_string(platform_settings_node* node) {
  const char* const text = REAL(platform_settings_node_string)(node);
  return text != nullptr && Has("stale-event") ? TheTable().stale.c_str() : text;
}

int platform_settings_node_int(platform_settings_node* node) {
  const int before = errno;
  const int number = REAL(platform_settings_node_int)(node);
  if (Has("errno-unset")) {
    errno = before;
  }
  return number;
}

int platform_settings_subscribe(const char* key, platform_settings_changed_cb callback,
                                void* user_data) {
  Table& table = TheTable();
  const std::lock_guard lock(table.mutex);
  if (!IsAnySubscribed(key)) {
    // What came before this is no business of the new subscriber.
    REAL(platform_settings_unsubscribe)(key, OnChange);
  }
  const int status = REAL(platform_settings_subscribe)(key, OnChange, nullptr);
  if (status != 0) {
    return status;
  }
  Subscriber* const known = Find(key, callback);
  if (known == nullptr) {
    table.subscribers[key].push_back({callback, user_data, true, 0});
  } else if (!known->isSubscribed || !Has("old-user-data")) {
    *known = {callback, user_data, true, 0};
  }
  return 0;
}

int platform_settings_unsubscribe(const char* key, platform_settings_changed_cb callback) {
  const std::lock_guard lock(TheTable().mutex);
  Subscriber* const known = Find(key, callback);
  if (known == nullptr || !known->isSubscribed) {
    return -1;
  }
  known->isSubscribed = false;
  if (!IsAnySubscribed(key) && !Has("late-callback")) {
    return REAL(platform_settings_unsubscribe)(key, OnChange);
  }
  return 0;
}

namespace eme {

int IEME::isKeySystemSupported(const std::string& keySystem) {
  const int status = Real(&IEME::isKeySystemSupported,
                          "_ZN3eme4IEME20isKeySystemSupportedERKNSt7__cxx1112basic_string"
                          "IcSt11char_traitsIcESaIcEEE")(keySystem);
  return status == 11 && Has("support-status-0") ? 0 : status;
}

}  // namespace eme
