#include "support/FakePlatform.h"

#include <glib.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/DevicePower.h"
#include "platform/Log.h"
#include "platform/SystemInfo.h"

namespace {

thread_local int g_entered = 0;

/// The set, from those of its functions that allocate.
struct SEntered {
  SEntered() { ++g_entered; }
  ~SEntered() { --g_entered; }
  FakePlatform* operator->() const { return &FakePlatform::Get(); }
};

}  // namespace

bool FakePlatform::IsEntered() { return g_entered > 0; }

void FakePlatform::Reset() {
  static_cast<SPlatform&>(*this) = {};
  m_isLogDiscarded = false;
  m_nLogCalls = 0;
  TakeLog();
}

FakePlatform& FakePlatform::Get() {
  // Never destroyed: the library still logs while the process exits.
  static auto* instance = new FakePlatform();
  return *instance;
}

void FakePlatform::Record(SLogEntry entry) {
  if (m_isLogEchoed) {
    std::fprintf(stderr, "%s\n", entry.Text().c_str());
  }
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_log.push_back(std::move(entry));
}

std::vector<SLogEntry> FakePlatform::TakeLog() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return std::exchange(m_log, {});
}

std::vector<std::string> FakePlatform::TakeLogTexts() {
  std::vector<std::string> texts;
  for (const SLogEntry& entry : TakeLog()) {
    texts.push_back(entry.Text());
  }
  return texts;
}

void FakePlatform::Change(const std::string& key, const SettingsValue& value) {
  m_values[key] = value;
  platform_settings_node node{key, value};
  Notify(key, &node);
}

void FakePlatform::Notify(const std::string& key, platform_settings_node* node) {
  const auto subscription = m_subscriptions.find(key);
  if (subscription != m_subscriptions.end()) {
    const SSubscription copy = subscription->second;
    copy.callback(node, copy.userData);
  }
}

// ---- The seam -----------------------------------------------------------------------------------

int platform_log_print(int buffer, int priority, const char* tag, const char* format, ...) {
  const SEntered fake;
  ++fake->m_nLogCalls;
  if (fake->m_isLogDiscarded) {
    return 0;
  }
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list prefix;
  va_copy(prefix, arguments);
  SLogEntry entry{buffer, priority, tag, format, "", "", 0, ""};
  entry.file = va_arg(prefix, const char*);
  entry.function = va_arg(prefix, const char*);
  entry.line = va_arg(prefix, int);
  va_end(prefix);
  gchar* const text = g_strdup_vprintf(format, arguments);
  va_end(arguments);
  entry.body = std::strstr(text, " > ") + std::strlen(" > ");
  g_free(text);
  fake->Record(std::move(entry));
  return -1;  // the library ignores it
}

namespace {

bool EnterStore(const std::string& call) {
  const SEntered fake;
  fake->m_storeCalls.push_back(call);
  if (fake->m_onStoreCall) {
    fake->m_onStoreCall();
  }
  return !fake->m_areStoreCallsFailing;
}

int ReadInt(const char* call, const char* key, int* value) {
  const SEntered fake;
  const bool isWorking = EnterStore(std::string(call) + " " + key);
  const auto entry = fake->m_values.find(key);
  if (!isWorking || entry == fake->m_values.end() || !std::holds_alternative<int>(entry->second)) {
    *value = 77;  // garbage
    return 1;
  }
  *value = std::get<int>(entry->second);
  return 0;
}

int Write(const char* call, const char* key, const std::variant<const char*, int>& value) {
  const SEntered entered;
  if (!EnterStore(std::string(call) + " " + key)) {
    return -5;
  }
  const auto store = [key](const auto& written) { FakePlatform::Get().m_values[key] = written; };
  std::visit(store, value);
  return 0;
}

}  // namespace

char* platform_settings_get_string(const char* key) {
  const SEntered fake;
  if (!EnterStore(std::string("get_string ") + key)) {
    return nullptr;
  }
  const auto entry = fake->m_values.find(key);
  if (entry == fake->m_values.end() || !std::holds_alternative<std::string>(entry->second)) {
    return nullptr;
  }
  return strdup(std::get<std::string>(entry->second).c_str());
}

int platform_settings_set_string(const char* key, const char* value) {
  return Write("set_string", key, value);
}

int platform_settings_get_int(const char* key, int* value) {
  return ReadInt("get_int", key, value);
}

int platform_settings_set_int(const char* key, int value) { return Write("set_int", key, value); }

int platform_settings_get_bool(const char* key, int* value) {
  return ReadInt("get_bool", key, value);
}

int platform_settings_set_bool(const char* key, int value) { return Write("set_bool", key, value); }

const char* platform_settings_node_name(platform_settings_node* node) {
  return node->name ? node->name->c_str() : nullptr;
}

const char* platform_settings_node_string(platform_settings_node* node) {
  const auto* text = node->value ? std::get_if<std::string>(&*node->value) : nullptr;
  return text != nullptr ? text->c_str() : nullptr;
}

int platform_settings_node_int(platform_settings_node* node) {
  const auto* number = node->value ? std::get_if<int>(&*node->value) : nullptr;
  if (number == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return *number;
}

int platform_settings_subscribe(const char* key, platform_settings_changed_cb callback,
                                void* user_data) {
  const SEntered entered;
  if (!EnterStore(std::string("subscribe ") + key)) {
    return 1;
  }
  FakePlatform::Get().m_subscriptions[key] = {callback, user_data};
  return 0;
}

int platform_settings_unsubscribe(const char* key, platform_settings_changed_cb callback) {
  const SEntered entered;
  if (!EnterStore(std::string("unsubscribe ") + key)) {
    return 1;
  }
  auto& subscriptions = FakePlatform::Get().m_subscriptions;
  const auto entry = subscriptions.find(key);
  if (entry == subscriptions.end() || entry->second.callback != callback) {
    return 1;
  }
  subscriptions.erase(entry);
  return 0;
}

int platform_system_info_get_custom_int(const char* key, int* value) {
  const std::optional<int>& year = FakePlatform::Get().m_productYear;
  if (!year || std::string(key) != "com.halvex/featureconf/product.tv_year") {
    *value = -99;
    return -1;
  }
  *value = *year;
  return 0;
}

int platform_power_get_state() { return FakePlatform::Get().m_powerState; }

int platform_app_get_pid(const char*) { return FakePlatform::Get().m_appPid; }

int platform_app_set_process_group(int app_pid, int caller_pid) {
  FakePlatform& fake = FakePlatform::Get();
  fake.m_groupRequests.emplace_back(app_pid, caller_pid);
  return fake.m_setGroupResult;
}

// ---- Content decryption module ------------------------------------------------------------------

namespace {

int EnterCdm(const std::string& call) {
  const SEntered fake;
  fake->m_cdmCalls.push_back(call);
  return fake->m_operationStatus;
}

class PlainModule : public eme::IEME {
 public:
  int getStringProperty(const std::string& query, const std::string& parameter, std::string& result,
                        const std::string& option) override {
    const SEntered entered;
    result = FakePlatform::Get().m_systemId;
    return EnterCdm("query[" + query + "][" + parameter + "][" + option + "]");
  }
};

class KeyModule : public PlainModule, public IWVCDM {
 public:
  int generateDeviceKeyAndCert(std::string& key, std::string& cert) override {
    const SEntered entered;
    const int status = EnterCdm("generate[" + key + "][" + cert + "]");
    key = FakePlatform::Get().m_key;
    cert = FakePlatform::Get().m_cert;
    return status;
  }
  int ondaroSign(const std::string& key, const std::string& hash, std::string& sign) override {
    const SEntered entered;
    const int status = EnterCdm("sign[" + key + "][" + hash + "][" + sign + "]");
    sign = FakePlatform::Get().m_sign;
    return status;
  }
};

}  // namespace

namespace eme {

void IEventListener::onHostNetwork(const std::string&) {}

int IEME::isKeySystemSupported(const std::string& keySystem) {
  const SEntered entered;
  EnterCdm("supported[" + keySystem + "]");
  return FakePlatform::Get().m_supportStatus;
}

IEME* IEME::create(IEventListener* listener, const std::string& keySystem, bool secure,
                   CDM_MODEL model) {
  const SEntered fake;
  EnterCdm("create[" + keySystem + "][" + std::to_string(secure) + "][" + std::to_string(model) +
           "]");
  if (listener == nullptr || fake->m_isCreateFailing) {
    return nullptr;
  }
  listener->onMessage("session", kLicenseRequest, "message");
  listener->onHostNetwork("session");
  return fake->m_hasKeyInterface ? new KeyModule : new PlainModule;
}

int IEME::destroy(IEME* instance) {
  delete instance;
  return FakePlatform::Get().m_destroyStatus;
}

}  // namespace eme
