#ifndef ONDARO_PLATFORM_CONFORMANCE_DECLARATION_H
#define ONDARO_PLATFORM_CONFORMANCE_DECLARATION_H

#include <map>
#include <string>
#include <vector>

namespace conformance {

/// What a port says it has, and the means it offers to test it: lines of `key = value`.
class Declaration {
 public:
  /// Throws std::runtime_error, naming file and line, for anything that is not understood: a
  /// mistyped key must not pass for an absence.
  explicit Declaration(std::string path);

  const std::string& Path() const { return m_path; }
  /// Null for a key that is not declared.
  const std::string* Find(const std::string& key) const;
  bool Is(const std::string& key, const std::string& value) const;
  /// Below these every key is the kit's own.
  std::vector<std::string> SettingsRoots() const;
  /// Whether the log's file can be another for each process: some log.* names {sink}.
  bool HasSink() const;

 private:
  std::string m_path;
  std::map<std::string, std::string> m_values;
};

using Placeholders = std::map<std::string, std::string>;

/// `text` with each {name} replaced.
std::string Fill(std::string text, const Placeholders& placeholders);

}  // namespace conformance

#endif
