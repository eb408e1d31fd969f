#ifndef ONDARO_PAL_CPALUTILS_H
#define ONDARO_PAL_CPALUTILS_H

#include <cstdint>
#include <string>

#include "ondaro/Export.h"
#include "platform/SettingsStore.h"

namespace NOndaroPAL {

/**
 * Access to the settings store, questions about the set, and the hex dump. No state; as
 * thread-safe as the services of the set beneath it.
 *
 * What reads, writes or subscribes is true on success; a failure is false and an error line. Only
 * running out of memory throws, and what the set's services throw. An empty key is refused without
 * asking the store. An out-parameter is assigned on success only, but for SetregGetInt, whose
 * variable the store itself writes: set it to 0 before.
 */
class ONDARO_EXPORT CPALUtils {
 public:
  static bool SetregGetStr(const std::string& key, std::string& value);
  static bool SetregSetStr(const std::string& key, const std::string& value);
  static bool SetregGetInt(const std::string& key, int& value);
  static bool SetregSetInt(const std::string& key, int value);

  /** The store keeps an integer; `value` is true exactly when it is 1. */
  static bool SetregGetBool(const std::string& key, bool& value);
  static bool SetregSetBool(const std::string& key, bool value);

  /* For use inside a change callback only: the node ends with it. A null node is refused. */
  static bool GetSetregKeyFromKeynode(platform_settings_node* keynode, std::string& key);
  static bool GetSetregStrFromKeynode(platform_settings_node* keynode, std::string& value);
  static bool GetSetregIntFromKeynode(platform_settings_node* keynode, int& value);

  /**
   * Subscribes `callback` to `key`; it is called as the settings store delivers, with `userData`
   * unchanged, which must live until the deregistration. Key and callback together name the
   * subscription. The callback must not throw.
   */
  static bool RegisterSetregChangedCb(const std::string& key, platform_settings_changed_cb callback,
                                      const void* userData);
  static bool DeregisterSetregChangedCb(const std::string& key,
                                        platform_settings_changed_cb callback);

  /** True when the set's init flag reads 0; false also when it cannot be read. */
  static bool IsOndaroInitReset();

  /** True when the set's power state is 0 or 1. */
  static bool IsValidPowerState();

  /** The product year as text: "20" and the set's year number. */
  static bool GetProductYear(std::string& year);

  /** The set's model as the settings store names it. */
  static bool GetModelId(std::string& modelId);

  /**
   * The value of one member of a JSON object as text: empty when absent, "error" when `json` is
   * not valid JSON. Throws JsonCpp's exceptions when the root is no object or the member cannot
   * be turned into text.
   */
  static std::string ParseJsonVal(const std::string& json, const std::string& member);

  /**
   * Logs `length` bytes in hexadecimal, 16 a line.
   *
   * @param label   printed before each line; must not be null
   * @param data    the bytes; may be null only when `length` is 0
   */
  static void PrintDataToHex(const char* label, const void* data, std::uint64_t length);
};

}  // namespace NOndaroPAL

#endif
