#ifndef ONDARO_TESTS_MODEL_SUBJECT_H
#define ONDARO_TESTS_MODEL_SUBJECT_H

#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <variant>
#include <vector>

namespace ondaro::model {

// What the random driver does, as plain data: every step means something in every state, so that
// any part of a sequence is a sequence too.

/// Calls up to UNWATCH, as callbacks make them too: `a` draws the key or event name, `b` the value
/// or script. With SETTLE all that is on its way arrives; with CHANGE another process writes; from
/// FAIL on the settings store has the fault `a`.
enum Op : unsigned { GET, SEND, WATCH, UNWATCH, SETTLE, CHANGE, FAIL };
constexpr unsigned WEIGHTS[] = {8, 26, 18, 6, 8, 12, 2};
/// Whose functions are called; GET is of the first alone, and its SEND writes a property.
enum Family : unsigned { CONFIG, SERVER, CLIENT };

struct Step {
  Op op;
  Family family;
  unsigned a, b;
};
using Steps = std::vector<Step>;

using Words = std::vector<std::string>;
inline const Words FLAG = {"false", "true"}, USAGE = {"false", "default", "true", "set"};

/// A property; empty is what it has not.
struct Key {
  const char* name;
  std::string store = {};     // where the settings store keeps it
  Words words = {};           // for the numbers from 0, if it keeps them and no text
  std::string callback = {};  // of its changes
  bool isFiltered = false;    // tells of no value twice in a row
};
inline const Key KEYS[] = {
    {"ONDARO_STATUS", "memory/menu/network/ondaro_status", {}, "OndaroStatus", true},
    {"ONDARO_SUPPORT", "db/menu/network/ondaro_support", FLAG, "OndaroSupport"},
    {"ONDARO_ENROLLMENT", "db/ondaro/property/enterprise_enrollment", {}, "OndaroEnrollment", true},
    {"ONDARO_TOS_STATUS", "db/menu/network/ondaro_tos_status", {}, "OndaroToSStatus"},
    {"ONDARO_CLEAR_DATA", "db/menu/network/ondaro_clear_data", FLAG, "OndaroClearData"},
    {"ONDARO_ENABLE_USAGE_RPT", "db/menu/network/ondaro_enable_usage_rpt", USAGE,
     "OndaroEnableUsageRpt"},
    {"WIDEVINE_ONDARO_VERSION",
     "db/ondaro/property/widevine_ondaro_version",
     {},
     "OndaroWidevineOndaroVersion",
     true},
    {"WIDEVINE_ONDARO_SUPPORT",
     "db/ondaro/property/widevine_ondaro_support",
     {},
     "OndaroWidevineOndaroSupport",
     true},
    {"ONDARO_INIT", "db/menu/network/ondaro_init", FLAG},
    {"SDR"},
    {"ONDARO_STATUS:a:b"},
    {":x"},
    {nullptr}};
inline const char* const EVENT_NAMES[] = {"a", "b", "B", "", "%s%n", "\xC3\xA4", "\xFF", nullptr};
inline const std::string LONG_VALUE(20'000, 'l');
inline const char* const VALUES[] = {
    "x",    "y",         "",         "true",     "false",    "default",          "set",
    "True", "sometimes", "%s%n%5$d", "\xC3\xBC", "\xFFnot8", LONG_VALUE.c_str(), nullptr};

template <typename Table>
const auto& Pick(const Table& table, unsigned number) {
  return table[number % std::size(table)];
}
inline const Key& KeyOf(const Step& step) { return Pick(KEYS, step.a); }
inline const char* NameOf(const Step& step) {
  return step.family == CONFIG ? KeyOf(step).name : Pick(EVENT_NAMES, step.a);
}
inline const char* ValueOf(const Step& step) { return Pick(VALUES, step.b); }
/// What the callback that the step registers does when called; NO_SCRIPT is no callback.
constexpr unsigned SCRIPTS = 64, NO_SCRIPT = 0;
inline unsigned ScriptOf(const Step& step) { return step.b % SCRIPTS; }

using Dice = std::independent_bits_engine<std::mt19937, 32, unsigned>;
/// With one of the first so many ops.
inline Step Throw(Dice& dice, unsigned ops) {
  std::discrete_distribution<unsigned> anyOp(WEIGHTS, WEIGHTS + ops);
  // Small ones often, so that steps meet each other.
  const auto argument = [&] { return dice() % (dice() % 2 == 0 ? 4 : 1024); };
  const Op op = Op(anyOp(dice));
  return {op, Family(op == GET ? CONFIG : dice() % 3), argument(), argument()};
}

/// What is observed, in order: log lines, events, calls of the store, results.
using Lines = std::vector<std::string>;
using Value = std::variant<std::string, int>;

/// What steps are done to, the library or the model of it, with all that is around it: the store's
/// faults, what callbacks do, changes by others.
class Subject {
 public:
  virtual ~Subject() = default;
  /// What was observed since the last step, or the beginning.
  Lines Perform(const Step& step);
  /// What a callback does: a few steps, and an exception at the end of some.
  void RunScript(unsigned number, const char* data);

 protected:
  using Values = std::map<std::string, Value>;
  explicit Subject(Values& store) : m_store(store) {}

  /// The step's exported function, and its result as a text.
  virtual std::string Call(const Step& step) = 0;
  /// The store tells of a change: a value, one that cannot be read, or null.
  virtual void Notify(const std::string& key, const std::optional<Value>* value) = 0;
  /// All messages that are on their way, and those that they cause.
  virtual void Deliver() = 0;
  /// Appends the lines that it has made by itself.
  virtual void Collect() {}

  /// What the store does at each call of it: whether it works.
  bool IsStoreWorking(const std::string& call);

  Lines m_lines;
  Values& m_store;

 private:
  void Note(const char* kind, const std::string& what);
  void Do(const Step& step);
  void Change(const Step& step);
  void Settle();

  int m_nScriptsLeft = 0;
  unsigned m_fault = 0;
  Lines m_written;  // keys whose subscribers are still to be told
};

/// One a process: the library's services live as long.
Subject& TheModel();
Subject& TheLibrary();

}  // namespace ondaro::model

#endif
