#ifndef ONDARO_TESTS_HOST_STOREAREA_H
#define ONDARO_TESTS_HOST_STOREAREA_H

#include <string>
#include <vector>

#include "settings/SharedSettings.h"

namespace ondaro::test {

/// What a process has of the settings in a directory. Two of them see each other as processes do.
class StoreArea {
 public:
  explicit StoreArea(const std::string& directory)
      : m_settings([directory] { return directory; }) {}

  bool Set(const std::string& key, const std::string& value) {
    return Try([&] { m_settings.Write(key, value); });
  }
  /// The text; "(none)" for a missing key, "(error)" for a call that failed.
  std::string Get(const std::string& key) {
    std::string text = "(none)";
    const bool isRead = Try([&] {
      m_settings.Read(key, [&](const host::SharedSettings::Value& value) {
        const std::string* found = value ? std::get_if<std::string>(&*value) : nullptr;
        text = found != nullptr ? *found : text;
      });
    });
    return isRead ? text : "(error)";
  }
  std::int64_t Last() {
    std::int64_t last = -1;
    Try([&] { last = m_settings.Last().number; });
    return last;
  }
  /// The changes after a number, of those no longer in the log the last of each of the keys.
  host::SharedSettings::Changes Log(std::int64_t after = 0,
                                    const std::vector<std::string>& keys = {}) {
    host::SharedSettings::Changes all;
    Try([&] {
      host::SharedSettings::Position position = {m_settings.Last().database, after};
      for (bool hasMore = true; hasMore;) {
        host::SharedSettings::Changes next;
        hasMore = m_settings.ChangesAfter(
            position, [](const std::string&) { return true; }, [&] { return keys; }, next);
        all.insert(all.end(), next.begin(), next.end());
      }
    });
    return all;
  }
  /// What the failed calls so far have told.
  const std::string& Errors() const { return m_errors; }

 private:
  template <typename Operation>
  bool Try(Operation operation) {
    try {
      operation();
      return true;
    } catch (const std::exception& error) {
      m_errors += std::string(error.what()) + "\n";
      return false;
    }
  }

  host::SharedSettings m_settings;
  std::string m_errors;
};

}  // namespace ondaro::test

#endif
