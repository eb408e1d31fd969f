#ifndef ONDARO_TESTS_MODEL_STEP_H
#define ONDARO_TESTS_MODEL_STEP_H

#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <variant>
#include <vector>

/// What the random driver does to the library, as plain data: every step means something in every
/// state, so that any part of a sequence is a sequence too. What one call does alone is not the
/// model's matter, but that of tests with tables.
namespace ondaro::model {

enum Op : unsigned {
  // a = key or event name, b = value or script
  GET,
  SET,
  WATCH,
  UNWATCH,
  SERVER_WATCH,
  SERVER_UNWATCH,
  SERVER_SEND,
  CLIENT_WATCH,
  CLIENT_UNWATCH,
  CLIENT_SEND,
  OPS_OF_CALLBACKS,
  SETTLE = OPS_OF_CALLBACKS,  // everything on its way arrives
  CHANGE,                     // a = key, b = value: by another process
  FAIL,                       // a = fault: the settings store's from now on
  OPS
};
constexpr unsigned WEIGHTS[OPS] = {10, 10, 8, 3, 6, 1, 8, 6, 4, 8, 8, 12, 2};

struct Step {
  Op op;
  unsigned a, b;
};
using Steps = std::vector<Step>;

enum class Fault { NONE, STATUS, STANDARD, API, FOREIGN };

/// A property and where the settings store keeps it, if it does.
struct Key {
  const char* property;
  std::string store;
};
inline const Key KEYS[] = {
    {"ONDARO_STATUS", "memory/menu/network/ondaro_status"},
    {"ONDARO_SUPPORT", "db/menu/network/ondaro_support"},
    {"ONDARO_ENROLLMENT", "db/ondaro/property/enterprise_enrollment"},
    {"ONDARO_TOS_STATUS", "db/menu/network/ondaro_tos_status"},
    {"ONDARO_CLEAR_DATA", "db/menu/network/ondaro_clear_data"},
    {"ONDARO_ENABLE_USAGE_RPT", "db/menu/network/ondaro_enable_usage_rpt"},
    {"WIDEVINE_ONDARO_VERSION", "db/ondaro/property/widevine_ondaro_version"},
    {"WIDEVINE_ONDARO_SUPPORT", "db/ondaro/property/widevine_ondaro_support"},
    {"ONDARO_INIT", "db/menu/network/ondaro_init"},
    {"ONDARO_SET_PROCESS_GRP", ""},
    {"SYSTEM_ID", ""},
    {"TARGET_REPOSITORY", ""},
    {"SDR", ""},
    {"ONDARO_STATUS:a:b", ""},
    {":x", ""},
    {nullptr, ""}};
inline const char* const EVENT_NAMES[] = {"a", "b", "B", "", "%s%n", "\xC3\xA4", "\xFF", nullptr};
inline const std::string LONG_VALUE(20'000, 'l');
inline const char* const VALUES[] = {
    "x",    "y",         "",         "true",     "false",    "default",          "set",
    "True", "sometimes", "%s%n%5$d", "\xC3\xBC", "\xFFnot8", LONG_VALUE.c_str(), nullptr};
constexpr int NUMBERS[] = {0, 1, 2, 3, 7, -1};
/// An application that runs; others do not.
constexpr const char* APPLICATION = "x";
constexpr int APPLICATION_PID = 4711;

template <typename Table>
const auto& Pick(const Table& table, unsigned number) {
  return table[number % std::size(table)];
}

inline const Key& KeyOf(const Step& step) { return Pick(KEYS, step.a); }
inline const char* EventNameOf(const Step& step) { return Pick(EVENT_NAMES, step.a); }
inline const char* ValueOf(const Step& step) { return Pick(VALUES, step.b); }
inline Fault FaultOf(const Step& step) {
  return step.a % 12 < 5 ? Fault(step.a % 12) : Fault::NONE;
}

using Value = std::variant<std::string, int>;
/// What the store tells of a change: a value, one that cannot be read, or nothing at all.
struct News {
  bool hasNode;
  std::optional<Value> value;
};

class Dice {
 public:
  explicit Dice(unsigned seed) : m_engine(seed) {}
  // Not a standard distribution: those differ from library to library.
  unsigned Below(unsigned limit) { return static_cast<unsigned>(m_engine()) % limit; }
  Step Throw(unsigned ops) {
    unsigned sum = 0, op = 0;
    for (unsigned each = 0; each < ops; ++each) {
      sum += WEIGHTS[each];
    }
    for (sum = Below(sum); sum >= WEIGHTS[op]; ++op) {
      sum -= WEIGHTS[op];
    }
    return {static_cast<Op>(op), Argument(), Argument()};
  }

 private:
  // Small ones often, so that steps meet each other.
  unsigned Argument() { return Below(Below(2) == 0 ? 4 : 1024); }

  std::mt19937 m_engine;
};

/// Which script a callback runs when called; there are as many, and the first is no callback.
inline unsigned ScriptOf(const Step& step) { return step.b % 64; }
constexpr unsigned NO_SCRIPT = 0;

}  // namespace ondaro::model

#endif
