#ifndef ONDARO_TESTS_MODEL_STEP_H
#define ONDARO_TESTS_MODEL_STEP_H

#include <functional>
#include <iterator>
#include <random>
#include <string>
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
  std::string property, store;
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
    {":x", ""}};
inline const std::string EVENT_NAMES[] = {"a", "b", "B", "", "%s%n", "\xC3\xA4", "\xFF"};
inline const std::string VALUES[] = {"x",
                                     "y",
                                     "",
                                     "true",
                                     "false",
                                     "default",
                                     "set",
                                     "True",
                                     "sometimes",
                                     "%s%n%5$d",
                                     "\xC3\xBC",
                                     "\xFFnot8",
                                     std::string(20'000, 'l')};
constexpr int NUMBERS[] = {0, 1, 2, 3, 7, -1};

template <typename Table>
const auto& Pick(const Table& table, unsigned number) {
  return table[number % std::size(table)];
}

inline const Key& KeyOf(const Step& step) { return Pick(KEYS, step.a); }
inline const std::string& EventNameOf(const Step& step) { return Pick(EVENT_NAMES, step.a); }
inline const std::string& ValueOf(const Step& step) { return Pick(VALUES, step.b); }
/// What a key changes to by another process: a number or a text, or what cannot be read.
enum class Content { NUMBER, TEXT, UNREADABLE, NO_NODE };
inline Content ContentOf(const Step& step) {
  const unsigned kind = step.b / 16 % 16;
  return kind < 2 ? Content(kind + 2) : Content(kind % 2);
}
inline Fault FaultOf(const Step& step) {
  return step.a % 12 < 5 ? Fault(step.a % 12) : Fault::NONE;
}

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

/// What a callback does when called: a few steps, and an exception at the end of some.
struct Script {
  Steps steps;
  Fault ending = Fault::NONE;
};
/// Stands for no callback at all.
constexpr unsigned NO_SCRIPT = 0;
inline unsigned ScriptNumberOf(const Step& step) { return step.b % 64; }
inline Script ScriptOf(unsigned number) {
  Dice dice(number);
  Script script;
  for (unsigned left = dice.Below(4); left > 0; --left) {
    script.steps.push_back(dice.Throw(OPS_OF_CALLBACKS));
  }
  if (dice.Below(3) == 0) {
    script.ending = dice.Below(2) == 0 ? Fault::STANDARD : Fault::FOREIGN;
  }
  return script;
}
/// How many scripts may run within one step: callbacks may cause each other without end.
constexpr int SCRIPTS_PER_STEP = 6;

/// What is observed of a step, in order: log lines, events, calls to the platform, results.
using Lines = std::vector<std::string>;
/// Performs a step. Made, it has the services made already; null is for that.
using Performer = std::function<Lines(const Step*)>;
Performer MakeModel();
Performer MakeLibrary();

}  // namespace ondaro::model

#endif
