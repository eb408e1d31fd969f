#include "properties/Properties.h"

#include <memory>

#include "ondaro/pal/CPALFactory.h"
#include "ondaro/pal/CPALUtils.h"
#include "support/ExitCode.h"

namespace ondaro::ctl {
namespace {

using NOndaroPAL::CPALUtils;

// What a read that failed yields. It may be a value as well.
constexpr std::string_view READ_FAILED = "error";

// Where a backend that keeps its state in a directory tells which; others have no such key.
constexpr char STATE_DIRECTORY_KEY[] = "host/state-directory";

struct DestroyValue {
  void operator()(const char* value) const noexcept {
    OndaroApi_SystemConfig_DestroyProperty(value);
  }
};

/// Whether READ_FAILED is what the set really holds: asked of the property's source itself.
bool HoldsReadFailed(const Property& property) {
  std::string value;
  const bool isRead = property.name == "SYSTEM_ID"
                          ? OndaroFactory_GetCoreAuthHandle() != nullptr &&
                                NOndaroPAL::GetCoreAuth().GetSystemID(value)
                          : !property.key.empty() && property.words.empty() &&
                                CPALUtils::SetregGetStr(property.key, value);
  return isRead && value == READ_FAILED;
}

void Ignore(platform_settings_node* /*node*/, void* /*userData*/) {}

/// The registration itself does not tell whether it succeeded.
bool StoreTakesSubscribers(const std::string& key) {
  return CPALUtils::RegisterSetregChangedCb(key, Ignore, nullptr) &&
         CPALUtils::DeregisterSetregChangedCb(key, Ignore);
}

}  // namespace

std::optional<std::string> StateDirectory() {
  std::string directory;
  return CPALUtils::SetregGetStr(STATE_DIRECTORY_KEY, directory) ? std::optional(directory)
                                                                 : std::nullopt;
}

std::string SeeLog() {
  return StateDirectory() ? "; '--log error' shows why" : "; the log of the set shows why";
}

void RequireOfSet(bool isFine, const std::string& message, ExitCode code) {
  if (!isFine) {
    throw Failure(code, message + SeeLog());
  }
}

OndaroApi_SystemConfig_h SystemConfig() {
  return Made(OndaroFactory_GetSystemConfigHandle(), "the property service could not be created");
}

OndaroApi_IpcClient_h Client() {
  return Made(OndaroFactory_GetIpcClientHandle(),
              "the messaging could not be set up on the system bus", ExitCode::BusAbsent);
}

NOndaroAPI::CCoreAuth& CoreAuth() {
  Made(OndaroFactory_GetCoreAuthHandle(), "device authentication could not be opened");
  return NOndaroPAL::GetCoreAuth();
}

std::optional<std::string> Read(const Property& property) {
  std::uint32_t length = 0;
  const std::unique_ptr<const char, DestroyValue> buffer(
      OndaroApi_SystemConfig_GetProperty(SystemConfig(), property.name.c_str(), &length));
  if (buffer == nullptr) {
    return std::nullopt;
  }
  std::string value(buffer.get(), length);
  const bool hasFailed = value == READ_FAILED && !HoldsReadFailed(property);
  return hasFailed ? std::nullopt : std::optional(value);
}

bool IsUnset(const Property& property) {
  std::string text;
  int number = 0;
  return !property.key.empty() && !CPALUtils::SetregGetStr(property.key, text) &&
         !CPALUtils::SetregGetInt(property.key, number) && StoreTakesSubscribers(property.key);
}

bool Write(const Property& property, const std::string& value) {
  return OndaroApi_SystemConfig_SetProperty(SystemConfig(), property.name.c_str(), value.c_str());
}

PropertySubscription::PropertySubscription(MainLoop& loop, const Property& property,
                                           Handler handler)
    : m_loop(loop), m_name(property.name), m_handler(std::move(handler)) {
  if (!property.HasEvents()) {
    std::string others;
    for (const Property& other : CATALOGUE) {
      others += other.HasEvents() ? " " + other.name : "";
    }
    throw Failure(m_name + " has no change events; these have:" + others);
  }
  RequireOfSet(StoreTakesSubscribers(property.key),
               "the settings store refused the subscription to " + m_name);
  OndaroApi_SystemConfig_RegisterEventHandler(SystemConfig(), m_name.c_str(), OnChanged, this);
}

PropertySubscription::~PropertySubscription() {
  OndaroApi_SystemConfig_UnregisterEventHandler(OndaroFactory_GetSystemConfigHandle(),
                                                m_name.c_str());
}

void PropertySubscription::OnChanged(const char* data, void* userData) {
  auto* const pThis = static_cast<PropertySubscription*>(userData);
  pThis->m_loop.Protect([&] { pThis->m_handler(data); });
}

}  // namespace ondaro::ctl
