#ifndef ONDARO_PLATFORM_CONFORMANCE_DECLARATION_H
#define ONDARO_PLATFORM_CONFORMANCE_DECLARATION_H

#include <map>
#include <string>
#include <vector>

namespace conformance {

/// The keys of a port's declaration; docs/porting.md says what each is for.
namespace keys {
inline constexpr char PORT[] = "port";
inline constexpr char LOG_ENVIRONMENT[] = "log.environment";
inline constexpr char LOG_READ[] = "log.read";
inline constexpr char LOG_DEBUG[] = "log.debug";
inline constexpr char LOG_INFO[] = "log.info";
inline constexpr char LOG_ERROR[] = "log.error";
inline constexpr char SETTINGS_ROOTS[] = "settings.roots";
inline constexpr char SETTINGS_SHARED[] = "settings.shared";
inline constexpr char SETTINGS_REMOVE[] = "settings.remove";
inline constexpr char FEATURE_KEY[] = "feature.key";
inline constexpr char FEATURE_VALUE[] = "feature.value";
inline constexpr char FEATURE_SET[] = "feature.set";
inline constexpr char POWER_STATE[] = "power.state";
inline constexpr char POWER_SET[] = "power.set";
inline constexpr char POWER_UNKNOWN[] = "power.unknown";
inline constexpr char APPLICATION_ID[] = "application.id";
inline constexpr char APPLICATION_PID[] = "application.pid";
inline constexpr char APPLICATION_ANNOUNCE[] = "application.announce";
inline constexpr char DECRYPTION_MODULE[] = "decryption-module";
inline constexpr char DEVICE_KEYS[] = "device-keys";
inline constexpr char SIGNATURE_VERIFY[] = "signature.verify";
}  // namespace keys

/// What a port says it has, and the means it offers to test it: lines of `key = value`.
class Declaration {
 public:
  /// Throws std::runtime_error, naming file and line, for anything that is not understood: a
  /// mistyped key must not pass for an absence.
  explicit Declaration(const std::string& path);

  const std::string& Path() const { return m_path; }
  /// Null for a key that is not declared.
  const std::string* Find(const std::string& key) const;
  /// False also for a key that is not declared.
  bool IsYes(const std::string& key) const;
  /// Below these every key is the kit's own.
  std::vector<std::string> SettingsRoots() const;

 private:
  std::string m_path;
  std::map<std::string, std::string> m_values;
};

using Placeholders = std::map<std::string, std::string>;

/// `text` with each {name} replaced.
std::string Fill(std::string text, const Placeholders& placeholders);

/// How a port lets the kit bring something about: `set-int KEY VALUE` and `set-text KEY VALUE`
/// write the port's own settings store, `run COMMAND` is for the shell.
class Action {
 public:
  enum class Kind { SET_INT, SET_TEXT, RUN };

  /// Throws std::runtime_error for any other text.
  explicit Action(const std::string& text);

  /// The settings key that is written; empty for a command.
  const std::string& Key() const { return m_key; }
  bool Apply(const Placeholders& placeholders) const;

 private:
  Kind m_kind;
  std::string m_key;
  std::string m_value;
};

}  // namespace conformance

#endif
