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
  /**
   * Reads a text.
   *
   * @param key    its key
   * @param value  receives it
   * @return true on success
   */
  static bool SetregGetStr(const std::string& key, std::string& value);

  /**
   * Writes a text.
   *
   * @param key    its key
   * @param value  the text
   * @return true on success
   */
  static bool SetregSetStr(const std::string& key, const std::string& value);

  /**
   * Reads an integer.
   *
   * @param key    its key
   * @param value  receives it
   * @return true on success
   */
  static bool SetregGetInt(const std::string& key, int& value);

  /**
   * Writes an integer.
   *
   * @param key    its key
   * @param value  the integer
   * @return true on success
   */
  static bool SetregSetInt(const std::string& key, int value);

  /**
   * Reads a flag, which the store keeps as an integer.
   *
   * @param key    its key
   * @param value  receives true exactly when the integer is 1
   * @return true on success
   */
  static bool SetregGetBool(const std::string& key, bool& value);

  /**
   * Writes a flag.
   *
   * @param key    its key
   * @param value  the flag
   * @return true on success
   */
  static bool SetregSetBool(const std::string& key, bool value);

  /**
   * For use inside a change callback only: the key that was written.
   *
   * @param keynode  as given to the callback; null is refused
   * @param key      receives it
   * @return true on success
   */
  static bool GetSetregKeyFromKeynode(platform_settings_node* keynode, std::string& key);

  /**
   * For use inside a change callback only: the text that was written.
   *
   * @param keynode  as given to the callback; null is refused
   * @param value    receives it
   * @return true on success
   */
  static bool GetSetregStrFromKeynode(platform_settings_node* keynode, std::string& value);

  /**
   * For use inside a change callback only: the integer that was written.
   *
   * @param keynode  as given to the callback; null is refused
   * @param value    receives it
   * @return true on success
   */
  static bool GetSetregIntFromKeynode(platform_settings_node* keynode, int& value);

  /**
   * Asks to be called whenever a key is written, as the settings store delivers.
   *
   * @param key       the key
   * @param callback  with the key it names the subscription; must not throw
   * @param userData  passed to the callback unchanged; must live until the deregistration
   * @return true on success
   */
  static bool RegisterSetregChangedCb(const std::string& key, platform_settings_changed_cb callback,
                                      const void* userData);

  /**
   * Ends a subscription.
   *
   * @param key       the key
   * @param callback  as registered
   * @return true on success
   */
  static bool DeregisterSetregChangedCb(const std::string& key,
                                        platform_settings_changed_cb callback);

  /** @return true when the set's init flag reads 0; false also when it cannot be read */
  static bool IsOndaroInitReset();

  /** @return true when the set's power state is 0 or 1 */
  static bool IsValidPowerState();

  /**
   * The product year as text.
   *
   * @param year  receives "20" followed by the set's year number: 2024 for 24
   * @return true when the set tells its year
   */
  static bool GetProductYear(std::string& year);

  /**
   * The set's model as the settings store names it, under `db/comss/modelid`.
   *
   * @param modelId  receives it
   * @return true on success
   */
  static bool GetModelId(std::string& modelId);

  /**
   * The value of one member of a JSON object as text. Throws JsonCpp's exceptions when the root is
   * no object or the member cannot be turned into text.
   *
   * @param json    the text of the object
   * @param member  the member's name
   * @return its value; empty when absent, "error" when `json` is not valid JSON
   */
  static std::string ParseJsonVal(const std::string& json, const std::string& member);

  /**
   * Logs bytes in hexadecimal, 16 a line.
   *
   * @param label   printed before each line; must not be null
   * @param data    the bytes; may be null only when there are none
   * @param length  their number
   */
  static void PrintDataToHex(const char* label, const void* data, std::uint64_t length);
};

}  // namespace NOndaroPAL

#endif
