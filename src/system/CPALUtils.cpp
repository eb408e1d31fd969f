#include "ondaro/pal/CPALUtils.h"

#include <json/json.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>

#include "OndaroPALDebug.h"
#include "platform/DevicePower.h"
#include "platform/SystemInfo.h"

namespace NOndaroPAL {

namespace {

const std::string PAL_UTILS_SETREG_KEY_ONDARO_INIT = "db/menu/network/airplay_init";
const std::string PAL_UTILS_SETREG_KEY_MODEL_ID = "db/comss/modelid";
const std::string PAL_UTILS_FMS_KEY_PRODUCT_YEAR = "com.halvex/featureconf/product.tv_year";

constexpr int BOOL_TRUE = 1;
constexpr unsigned int LAST_USABLE_POWER_STATE = 1;
constexpr std::size_t BYTES_PER_HEX_LINE = 16;

struct SFree {
  void operator()(char* text) const noexcept { std::free(text); }
};

/// False for null and, since nothing of this layer throws, when there is no memory for the copy.
bool _Copy(const char* text, std::string& value) noexcept {
  try {
    if (text != nullptr) {
      value = text;
    }
    return text != nullptr;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

bool CPALUtils::SetregGetStr(const std::string& key, std::string& value) {
  if (key.empty()) {
    PAL_LOG_ERROR("pKey is empty");
    return false;
  }
  const std::unique_ptr<char, SFree> text(platform_settings_get_string(key.c_str()));
  if (!_Copy(text.get(), value)) {
    PAL_LOG_ERROR("Failed to get key %s", key.c_str());
    return false;
  }
  return true;
}

bool CPALUtils::SetregSetStr(const std::string& key, const std::string& value) {
  if (key.empty()) {
    PAL_LOG_ERROR("pKey is empty");
    return false;
  }
  if (platform_settings_set_string(key.c_str(), value.c_str()) != 0) {
    PAL_LOG_ERROR("Failed to set key %s", key.c_str());
    return false;
  }
  PAL_LOG_INFO("Succeed to set key %s as %s", key.c_str(), value.c_str());
  return true;
}

bool CPALUtils::SetregGetInt(const std::string& key, int& value) {
  if (key.empty()) {
    PAL_LOG_ERROR("pKey is empty");
    return false;
  }
  if (platform_settings_get_int(key.c_str(), &value) != 0) {
    PAL_LOG_ERROR("Failed to get key %s", key.c_str());
    return false;
  }
  PAL_LOG_INFO("Succeed to get key %s", key.c_str());
  return true;
}

bool CPALUtils::SetregSetInt(const std::string& key, int value) {
  if (key.empty()) {
    PAL_LOG_ERROR("pKey is empty");
    return false;
  }
  if (platform_settings_set_int(key.c_str(), value) != 0) {
    PAL_LOG_ERROR("Failed to set key %s", key.c_str());
    return false;
  }
  PAL_LOG_INFO("Succeed to set key %s as %d", key.c_str(), value);
  return true;
}

bool CPALUtils::SetregGetBool(const std::string& key, bool& value) {
  if (key.empty()) {
    PAL_LOG_ERROR("pKey is empty");
    return false;
  }
  int stored = 0;
  if (platform_settings_get_bool(key.c_str(), &stored) != 0) {
    PAL_LOG_ERROR("Failed to get key %s", key.c_str());
    return false;
  }
  value = stored == BOOL_TRUE;
  PAL_LOG_INFO("Succeed to get key %s", key.c_str());
  return true;
}

bool CPALUtils::SetregSetBool(const std::string& key, bool value) {
  if (key.empty()) {
    PAL_LOG_ERROR("pKey is empty");
    return false;
  }
  const int stored = value ? BOOL_TRUE : 0;
  if (platform_settings_set_bool(key.c_str(), stored) != 0) {
    PAL_LOG_ERROR("Failed to set key %s", key.c_str());
    return false;
  }
  PAL_LOG_INFO("Succeed to set key %s as %d", key.c_str(), stored);
  return true;
}

bool CPALUtils::GetSetregKeyFromKeynode(platform_settings_node* keynode, std::string& key) {
  if (keynode == nullptr) {
    PAL_LOG_ERROR("pKeynode is NULL");
    return false;
  }
  if (!_Copy(platform_settings_node_name(keynode), key)) {
    PAL_LOG_ERROR("failed to get keynode name");
    return false;
  }
  PAL_LOG_INFO("Succeed to get keynode name %s", key.c_str());
  return true;
}

bool CPALUtils::GetSetregStrFromKeynode(platform_settings_node* keynode, std::string& value) {
  if (keynode == nullptr) {
    PAL_LOG_ERROR("pKeynode is NULL");
    return false;
  }
  if (!_Copy(platform_settings_node_string(keynode), value)) {
    PAL_LOG_ERROR("failed to get str from keynode");
    return false;
  }
  return true;
}

bool CPALUtils::GetSetregIntFromKeynode(platform_settings_node* keynode, int& value) {
  if (keynode == nullptr) {
    PAL_LOG_ERROR("pKeynode is NULL");
    return false;
  }
  // -1 is a value like any other; only errno tells it from a failure.
  errno = 0;
  const int number = platform_settings_node_int(keynode);
  if (number == -1 && errno != 0) {
    PAL_LOG_ERROR("failed to get int from keynode");
    return false;
  }
  value = number;
  return true;
}

bool CPALUtils::RegisterSetregChangedCb(const std::string& key,
                                        platform_settings_changed_cb callback,
                                        const void* userData) {
  if (key.empty()) {
    PAL_LOG_ERROR("pKey is empty");
    return false;
  }
  if (platform_settings_subscribe(key.c_str(), callback, const_cast<void*>(userData)) != 0) {
    PAL_LOG_ERROR("Failed to register for setreg key %s nottification", key.c_str());
    return false;
  }
  PAL_LOG_DEBUG("Succeed to register for notification for key %s ", key.c_str());
  return true;
}

bool CPALUtils::DeregisterSetregChangedCb(const std::string& key,
                                          platform_settings_changed_cb callback) {
  if (key.empty()) {
    PAL_LOG_ERROR("pKey is empty");
    return false;
  }
  if (platform_settings_unsubscribe(key.c_str(), callback) != 0) {
    PAL_LOG_ERROR("Failed to Un register for setreg key %s nottification", key.c_str());
    return false;
  }
  PAL_LOG_DEBUG("Succeed to Un register for notification for key %s ", key.c_str());
  return true;
}

bool CPALUtils::IsOndaroInitReset() {
  int flag = 0;
  if (!SetregGetInt(PAL_UTILS_SETREG_KEY_ONDARO_INIT, flag)) {
    PAL_LOG_ERROR("setreg check fail");
    return false;
  }
  return flag == 0;
}

bool CPALUtils::IsValidPowerState() {
  return static_cast<unsigned int>(platform_power_get_state()) <= LAST_USABLE_POWER_STATE;
}

bool CPALUtils::GetProductYear(std::string& year) {
  int number = 0;
  if (platform_system_info_get_custom_int(PAL_UTILS_FMS_KEY_PRODUCT_YEAR.c_str(), &number) != 0) {
    PAL_LOG_ERROR("system_info_get_custom_int is failed");
    return false;
  }
  year = "20" + std::to_string(number);
  return true;
}

bool CPALUtils::GetModelId(std::string& modelId) {
  return SetregGetStr(PAL_UTILS_SETREG_KEY_MODEL_ID, modelId);
}

std::string CPALUtils::ParseJsonVal(const std::string& json, const std::string& member) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value root;
  std::string errors;
  if (!reader->parse(json.data(), json.data() + json.size(), &root, &errors)) {
    PAL_LOG_ERROR("json parse error");
    return "error";
  }
  PAL_LOG_INFO("no error to parse");
  return root[member].asString();
}

void CPALUtils::PrintDataToHex(const char* label, const void* data, std::uint64_t length) {
  static constexpr char DIGITS[] = "0123456789abcdef";
  const auto* bytes = static_cast<const unsigned char*>(data);
  char line[2 * BYTES_PER_HEX_LINE + 1] = {};
  std::size_t column = 0;
  std::uint64_t lineCount = 0;
  for (std::uint64_t index = 0; index < length; ++index) {
    // A full line is written only once more follows: the last one belongs to the statement below.
    if (column == BYTES_PER_HEX_LINE) {
      PAL_LOG_INFO("%s[%3d]:[%s]", label, static_cast<int>(lineCount * BYTES_PER_HEX_LINE), line);
      column = 0;
      ++lineCount;
    }
    line[2 * column] = DIGITS[bytes[index] >> 4U];
    line[2 * column + 1] = DIGITS[bytes[index] & 0x0FU];
    ++column;
    line[2 * column] = '\0';
  }
  PAL_LOG_INFO("%s[%3d]:[%s]", label, static_cast<int>(lineCount * BYTES_PER_HEX_LINE), line);
}

}  // namespace NOndaroPAL
