#include "support/FakePlatform.h"

#include <glib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <utility>

#include "platform/AppManager.h"
#include "platform/ContentDecryptionModule.h"
#include "platform/DevicePower.h"
#include "platform/Log.h"
#include "platform/SystemInfo.h"

namespace {

thread_local int g_entered = 0;
std::mutex g_logMutex;

/// The set, from its own functions.
struct SEntered {
  SEntered() { ++g_entered; }
  ~SEntered() { --g_entered; }
  FakePlatform* operator->() const { return &FakePlatform::Get(); }
};

}  // namespace

bool FakePlatform::IsEntered() { return g_entered > 0; }

FakePlatform& FakePlatform::Get() {
  // Never destroyed: the library still logs while the process exits.
  static auto* instance = new FakePlatform();
  return *instance;
}

std::vector<SLogEntry> FakePlatform::TakeLog() {
  const std::lock_guard<std::mutex> lock(g_logMutex);
  return std::exchange(m_log, {});
}

void FakePlatform::Change(const std::string& key, const SettingsValue& value) {
  m_values[key] = value;
  platform_settings_node node{key.c_str(), value};
  Notify(key, &node);
}

void FakePlatform::Notify(const std::string& key, platform_settings_node* node) const {
  if (const auto entry = m_subscriptions.find(key); entry != m_subscriptions.end()) {
    const auto [callback, userData] = entry->second;
    callback(node, userData);
  }
}

// ---- The seam -----------------------------------------------------------------------------------

int platform_log_print(int buffer, int priority, const char* tag, const char* format, ...) {
  const SEntered fake;
  std::va_list arguments;
  va_start(arguments, format);
  gchar* const text = g_strdup_vprintf(format, arguments);
  va_end(arguments);
  va_start(arguments, format);
  const char* const file = va_arg(arguments, const char*);
  const char* const function = va_arg(arguments, const char*);
  const int line = va_arg(arguments, int);
  va_end(arguments);
  g_assert(buffer == 0 && line > 0 && g_str_has_prefix(format, "%s: %s(%d) > ") != FALSE);
  const std::lock_guard<std::mutex> lock(g_logMutex);
  fake->m_log.push_back({priority, tag, file, function, std::strstr(text, " > ") + 3});
  g_free(text);
  return -1;  // the library ignores it
}

namespace {

bool IsWorking(const char* call, const char* key) {
  const SEntered fake;
  return !fake->m_onStoreCall || fake->m_onStoreCall(std::string(call) + " " + key);
}

/// What is held by that name, if it is of that type.
template <typename T>
const T* Held(const char* name) {
  const SEntered fake;
  const auto entry = fake->m_values.find(name);
  return entry != fake->m_values.end() ? std::get_if<T>(&entry->second) : nullptr;
}

int GiveNumber(const int* number, int* value) {
  *value = number != nullptr ? *number : 77;  // garbage
  return number != nullptr ? 0 : 1;
}

template <typename T>
int Write(const char* call, const char* key, T value) {
  const SEntered fake;
  const bool isWorking = IsWorking(call, key);
  if (isWorking) {
    fake->m_values[key] = value;
  }
  return isWorking ? 0 : -5;
}

template <typename T>
const T* In(const platform_settings_node* node) {
  return node->value ? std::get_if<T>(&*node->value) : nullptr;
}

}  // namespace

char* platform_settings_get_string(const char* key) {
  const auto* text = IsWorking("get_string", key) ? Held<std::string>(key) : nullptr;
  return text != nullptr ? strdup(text->c_str()) : nullptr;
}

int platform_settings_get_int(const char* key, int* value) {
  return GiveNumber(IsWorking("get_int", key) ? Held<int>(key) : nullptr, value);
}

int platform_settings_get_bool(const char* key, int* value) {
  return GiveNumber(IsWorking("get_bool", key) ? Held<int>(key) : nullptr, value);
}

int platform_settings_set_string(const char* key, const char* value) {
  return Write("set_string", key, value);
}

int platform_settings_set_int(const char* key, int value) { return Write("set_int", key, value); }

int platform_settings_set_bool(const char* key, int value) { return Write("set_bool", key, value); }

const char* platform_settings_node_name(platform_settings_node* node) { return node->name; }

const char* platform_settings_node_string(platform_settings_node* node) {
  const auto* text = In<std::string>(node);
  return text != nullptr ? text->c_str() : nullptr;
}

int platform_settings_node_int(platform_settings_node* node) {
  const int* number = In<int>(node);
  errno = number == nullptr ? EINVAL : errno;
  return number != nullptr ? *number : -1;
}

int platform_settings_subscribe(const char* key, platform_settings_changed_cb callback,
                                void* user_data) {
  const SEntered fake;
  const bool isWorking = IsWorking("subscribe", key);
  if (isWorking) {
    fake->m_subscriptions[key] = {callback, user_data};
  }
  return isWorking ? 0 : 1;
}

int platform_settings_unsubscribe(const char* key, platform_settings_changed_cb callback) {
  const SEntered fake;
  const auto entry = fake->m_subscriptions.find(key);
  if (!IsWorking("unsubscribe", key) || entry == fake->m_subscriptions.end()) {
    return 1;
  }
  g_assert(entry->second.first == callback);
  fake->m_subscriptions.erase(entry);
  return 0;
}

int platform_system_info_get_custom_int(const char* key, int* value) {
  return GiveNumber(Held<int>(key), value);
}

int platform_power_get_state() {
  const int* state = Held<int>("power");
  return state != nullptr ? *state : -1;
}

int platform_app_get_pid(const char* app_id) {
  const int* pid = Held<int>(app_id);
  return pid != nullptr ? *pid : -1;
}

int platform_app_set_process_group(int app_pid, int caller_pid) {
  return app_pid > 0 && caller_pid == getpid() ? 0 : -1;
}

// ---- Content decryption module ------------------------------------------------------------------

namespace {

class PlainModule : public eme::IEME {
 public:
  int getStringProperty(const std::string& query, const std::string& parameter, std::string& result,
                        const std::string& option) override {
    const SEntered fake;
    g_assert(query == "getSystemId" && parameter == " " && option.empty());
    result += fake->m_systemId;
    return fake->m_operationStatus;
  }
};

class KeyModule : public PlainModule, public IWVCDM {
 public:
  int generateDeviceKeyAndCert(std::string& key, std::string& cert) override {
    const SEntered fake;
    key += fake->m_key;
    cert += fake->m_cert;
    return fake->m_operationStatus;
  }
  int ondaroSign(const std::string& key, const std::string& hash, std::string& sign) override {
    const SEntered fake;
    fake->m_signed = key + " " + hash;
    sign += fake->m_sign;
    return fake->m_operationStatus;
  }
};

}  // namespace

namespace eme {

void IEventListener::onHostNetwork(const std::string&) {}

int IEME::isKeySystemSupported(const std::string& keySystem) {
  g_assert(keySystem == "com.widevine.alpha");
  return FakePlatform::Get().m_supportStatus;
}

IEME* IEME::create(IEventListener* listener, const std::string& keySystem, bool secure,
                   CDM_MODEL model) {
  const SEntered fake;
  g_assert(keySystem == "com.widevine.alpha" && !secure && model == 1);
  if (fake->m_isCreateFailing) {
    return nullptr;
  }
  ++fake->m_nInstances;
  listener->onMessage("session", kLicenseRequest, "message");
  listener->onHostNetwork("session");
  return fake->m_hasKeyInterface ? new KeyModule : new PlainModule;
}

int IEME::destroy(IEME* instance) {
  --FakePlatform::Get().m_nInstances;
  delete instance;
  return FakePlatform::Get().m_destroyStatus;
}

}  // namespace eme
