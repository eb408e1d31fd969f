#include "SettingsKeys.h"

#include "Declaration.h"

namespace conformance {

std::vector<TouchedKey> TouchedKeys(const Declaration& declaration) {
  std::vector<TouchedKey> touched;
  for (const std::string& root : declaration.SettingsRoots()) {
    touched.push_back({root + "/" + FIRST_NAME, true});
    touched.push_back({root + "/" + SECOND_NAME, true});
  }
  const struct {
    const char* action;
    bool isOwn;
  } actions[] = {{keys::FEATURE_SET, true},
                 {keys::APPLICATION_ANNOUNCE, true},
                 {keys::POWER_SET, false},
                 {keys::POWER_UNKNOWN, false}};
  for (const auto& [action, isOwn] : actions) {
    const std::string* const declared = declaration.Find(action);
    if (declared != nullptr && !Action(*declared).Key().empty()) {
      touched.push_back({Action(*declared).Key(), isOwn});
    }
  }
  return touched;
}

}  // namespace conformance
