// Any key and value through the exported functions, and any change of a settings key.

#include "Fuzz.h"
#include "library/FakePlatform.h"
#include "ondaro/OndaroApi.h"

using namespace ondaro::fuzz;

namespace {

const char* const NAMES[] = {"ONDARO_STATUS",           "ONDARO_TOS_STATUS",      "ONDARO_SUPPORT",
                             "ONDARO_ENABLE_USAGE_RPT", "ONDARO_SET_PROCESS_GRP", "SDR"};
const char* const STORE_KEYS[] = {
    "memory/menu/network/ondaro_status", "db/menu/network/ondaro_tos_status",
    "db/menu/network/ondaro_support", "db/menu/network/ondaro_enable_usage_rpt"};

std::string Get(OndaroApi_SystemConfig_h handle, const std::string& key) {
  std::uint32_t length = 0;
  const char* value = OndaroApi_SystemConfig_GetProperty(handle, key.c_str(), &length);
  Expect(value != nullptr && value[length] == '\0', "a value with its length");
  std::string text(value, length);
  OndaroApi_SystemConfig_DestroyProperty(value);
  return text;
}

void Change(Input& input) {
  const char* key = STORE_KEYS[input.Number(4)];
  platform_settings_node node{key, std::nullopt};
  const unsigned kind = input.Number(3);
  if (kind == 1) {
    node.value = SettingsValue(static_cast<int>(input.Number(256)) - 1);
  }
  if (kind == 2) {
    node.value = SettingsValue(input.CText());
  }
  FakePlatform::Get().Notify(key, &node);
}

}  // namespace

void ondaro::fuzz::Run(Input input) {
  static const OndaroApi_SystemConfig_h handle = OndaroFactory_GetSystemConfigHandle();
  FakePlatform& fake = FakePlatform::Get();
  while (!input.IsEmpty()) {
    const unsigned kind = input.Number(5);
    const unsigned name = input.Number(12);
    const std::string key = name < 6 ? NAMES[name] : input.Text();
    if (kind == 0) {
      Get(handle, key + input.Text());
    }
    if (kind == 1) {
      const std::string value = input.CText();
      const bool isText = name < 2;
      const bool isStored = OndaroApi_SystemConfig_SetProperty(handle, key.c_str(), value.c_str());
      Expect(!isText || (isStored && Get(handle, key) == value), "a text reads as it was written");
    }
    if (kind == 2) {
      OndaroApi_SystemConfig_RegisterEventHandler(
          handle, key.c_str(), [](const char* text, void*) { Get(handle, text); }, nullptr);
    }
    if (kind == 3) {
      OndaroApi_SystemConfig_UnregisterEventHandler(handle, key.c_str());
    }
    if (kind == 4) {
      Change(input);
    }
  }
  fake.TakeLog();
  fake.m_storeCalls.clear();
  fake.m_groupRequests.clear();
}
