#ifndef ONDARO_CTL_CATALOGUE_H
#define ONDARO_CTL_CATALOGUE_H

#include <string>
#include <vector>

namespace ondaro::ctl {

struct Property {
  std::string name;
  std::string uses;                // r: it can be read, w: written, e: it has change events
  std::string key;                 // where the settings store keeps it; empty when it does not
  std::vector<std::string> words;  // that it stores as they are; none for any text

  bool IsReadable() const { return uses.find('r') != std::string::npos; }
  bool IsWritable() const { return uses.find('w') != std::string::npos; }
  bool HasEvents() const { return uses.find('e') != std::string::npos; }

  /// True for a value that it stores as it is.
  bool Takes(const std::string& value) const;
};

/// Every property there is, sorted by name.
extern const std::vector<Property> CATALOGUE;

/// The property of that name; a Failure that offers the nearest names when there is none.
const Property& FindProperty(const std::string& name);

/// A Failure that lists the words there are unless the property takes the value.
void RequireTaken(const Property& property, const std::string& value, const std::string& advice);

/// ", did you mean a or b?", or nothing when none of `known` is near.
std::string Suggest(const std::string& wanted, const std::vector<std::string>& known);

}  // namespace ondaro::ctl

#endif
