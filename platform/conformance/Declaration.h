#ifndef ONDARO_PLATFORM_CONFORMANCE_DECLARATION_H
#define ONDARO_PLATFORM_CONFORMANCE_DECLARATION_H

#include <map>
#include <optional>
#include <string>

namespace conformance {

/// What a port says it has, and the means it offers to test it: every key there is, with its value
/// where it is declared.
using Declaration = std::map<std::string, std::optional<std::string>>;

/// Lines of `key = value`. Throws std::runtime_error, naming file and line, for anything that is
/// not understood: a mistyped key must not pass for an absence.
Declaration ReadDeclaration(const std::string& path);

}  // namespace conformance

#endif
