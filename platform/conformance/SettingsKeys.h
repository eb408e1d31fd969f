#ifndef ONDARO_PLATFORM_CONFORMANCE_SETTINGSKEYS_H
#define ONDARO_PLATFORM_CONFORMANCE_SETTINGSKEYS_H

#include <string>
#include <vector>

namespace conformance {

class Declaration;

/// The names under each of the declared roots. A set may have no way to remove a key: they are
/// few and the same in every run.
inline constexpr char FIRST_NAME[] = "first";
inline constexpr char SECOND_NAME[] = "second";
inline constexpr char MISSING_NAME[] = "missing";  // never written

struct TouchedKey {
  std::string key;
  bool isOwn;  // the kit's, else the set's
};

/// Every settings key that a run may write.
std::vector<TouchedKey> TouchedKeys(const Declaration& declaration);

}  // namespace conformance

#endif
