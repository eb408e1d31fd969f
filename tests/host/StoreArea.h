#ifndef ONDARO_TESTS_HOST_STOREAREA_H
#define ONDARO_TESTS_HOST_STOREAREA_H

#include <optional>
#include <string>
#include <vector>

#include "SettingsArea.h"
#include "SettingsError.h"

namespace ondaro::test {

/// What a process has of the store's durable keys. Two of them see each other as processes do.
class StoreArea {
 public:
  using Durability = host::SettingsDatabase::Durability;

  explicit StoreArea(const std::string& directory, Durability durability = Durability::SYNCED)
      : m_area([directory] { return directory; }, "settings", durability) {}

  bool Set(const std::string& key, const std::string& value) {
    return Try([&] { m_area.Write(key, value); });
  }
  /// The text; "(none)" for a missing key, "(error)" for a call that failed.
  std::string Get(const std::string& key) {
    std::string text = "(none)";
    const bool isRead = Try([&] {
      m_area.Read(key, [&](const std::optional<host::SettingsValue>& value) {
        const std::string* found = value ? std::get_if<std::string>(&*value) : nullptr;
        text = found != nullptr ? *found : text;
      });
    });
    return isRead ? text : "(error)";
  }
  std::int64_t Follow() {
    std::int64_t position = -1;
    Try([&] { position = m_area.Follow(); });
    return position;
  }
  /// The changes after `position`, of those no longer in the log the last of each of the keys.
  std::vector<host::SettingsChange> Log(std::int64_t position = 0,
                                        const std::vector<std::string>& keys = {}) {
    std::vector<host::SettingsChange> all;
    Try([&] {
      for (auto next = m_area.ChangesAfterGap(position, keys); !next.empty();
           next = m_area.ChangesAfterGap(all.back().sequence, keys)) {
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
    } catch (const host::SettingsError& error) {
      m_errors += std::string(error.what()) + "\n";
      return false;
    }
  }

  host::SettingsArea m_area;
  std::string m_errors;
};

}  // namespace ondaro::test

#endif
