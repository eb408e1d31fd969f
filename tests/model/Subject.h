#ifndef ONDARO_TESTS_MODEL_SUBJECT_H
#define ONDARO_TESTS_MODEL_SUBJECT_H

#include <exception>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "ondaro/api/CException.h"

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
inline const Words TEXT, FLAG = {"false", "true"}, USAGE = {"false", "default", "true", "set"};

/// A property; empty is what it has not.
struct Key {
  const char* name;
  std::string callback = {};  // of its changes
  std::string store = {};     // where the settings store keeps it
  Words words = TEXT;         // for the numbers from 0, if it keeps them and no text
  bool isFiltered = false;    // tells of no value twice in a row
};
inline const Key KEYS[] = {
    {"ONDARO_STATUS", "OndaroStatus", "memory/menu/network/ondaro_status", TEXT, true},
    {"ONDARO_SUPPORT", "OndaroSupport", "db/menu/network/ondaro_support", FLAG},
    {"ONDARO_ENROLLMENT", "OndaroEnrollment", "db/ondaro/property/enterprise_enrollment", TEXT,
     true},
    {"ONDARO_TOS_STATUS", "OndaroToSStatus", "db/menu/network/ondaro_tos_status"},
    {"ONDARO_CLEAR_DATA", "OndaroClearData", "db/menu/network/ondaro_clear_data", FLAG},
    {"ONDARO_ENABLE_USAGE_RPT", "OndaroEnableUsageRpt", "db/menu/network/ondaro_enable_usage_rpt",
     USAGE},
    {"WIDEVINE_ONDARO_VERSION", "OndaroWidevineOndaroVersion",
     "db/ondaro/property/widevine_ondaro_version", TEXT, true},
    {"WIDEVINE_ONDARO_SUPPORT", "OndaroWidevineOndaroSupport",
     "db/ondaro/property/widevine_ondaro_support", TEXT, true},
    {"ONDARO_INIT", "", "db/menu/network/ondaro_init", FLAG},
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

/// Callbacks may cause each other without end.
constexpr int SCRIPTS_PER_STEP = 6;
constexpr int NUMBERS[] = {0, 1, 2, 3, 7, -1};

/// Of the store, by number: none, one that its status tells, and those that it raises.
inline const std::exception_ptr FAULTS[] = {
    nullptr, nullptr, std::make_exception_ptr(std::runtime_error("fault%s%n")),
    std::make_exception_ptr(7),
    std::make_exception_ptr(NOndaroAPI::CAPIException("fault", "%s%n"))};

inline void RaiseIf(const std::exception_ptr& fault) {
  if (fault != nullptr) {
    std::rethrow_exception(fault);
  }
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
  Lines Perform(const Step& step) {
    m_nScriptsLeft = SCRIPTS_PER_STEP;
    Do(step);
    Collect();
    return std::exchange(m_lines, {});
  }
  /// What a callback does: a few steps, and an exception at the end of some.
  void RunScript(unsigned number, const char* data) {
    const std::string before = data;
    Note("EVENT", std::to_string(number) + " " + before);
    if (m_nScriptsLeft-- <= 0) {
      return;
    }
    Dice dice(number);
    for (unsigned left = dice() % 4; left > 0; --left) {
      Do(Throw(dice, SETTLE));
    }
    if (data != before) {
      Note("EVENT", "with data that is gone");
    }
    RaiseIf(FAULTS[dice() % 3 == 0 ? 2 + dice() % 2 : 0]);
  }

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
  bool IsStoreWorking(const std::string& call) {
    Note("STORE", call);
    RaiseIf(FAULTS[m_fault]);
    const bool isWorking = m_fault == 0;
    if (isWorking && call.rfind("set_", 0) == 0) {
      m_written.push_back(call.substr(call.find(' ') + 1));
    }
    return isWorking;
  }

  Lines m_lines;
  Values& m_store;

 private:
  void Note(const char* kind, const std::string& what) {
    Collect();
    m_lines.push_back(std::string(kind) + " " + what);
  }

  void Do(const Step& step) {
    try {
      if (step.op < SETTLE) {
        Note("RESULT", Call(step));
      } else if (step.op == SETTLE) {
        Settle();
      } else if (step.op == CHANGE) {
        Change(step);
      } else {
        m_fault = step.a % 12 < std::size(FAULTS) ? step.a % 12 : 0;
      }
    } catch (int) {
      Note("THROWN", "foreign");
    }
  }

  void Change(const Step& step) {
    const std::string& key = KeyOf(step).store;
    const char* const text = ValueOf(step);
    const unsigned kind = step.b / 16 % 16;
    std::optional<Value> value;
    if (kind % 2 == 1 || text != nullptr) {
      value = kind % 2 == 1 ? Value(Pick(NUMBERS, step.b)) : Value(text);
      m_store[key] = *value;
    }
    Notify(key, kind != 0 ? &value : nullptr);
  }

  /// The store tells of the writes when all else has arrived; either may cause more.
  void Settle() {
    for (Deliver(); !m_written.empty(); Deliver()) {
      for (const std::string& key : std::exchange(m_written, {})) {
        const std::optional<Value> value = m_store.at(key);
        Notify(key, &value);
      }
    }
  }

  int m_nScriptsLeft = 0;
  unsigned m_fault = 0;
  Lines m_written;  // keys whose subscribers are still to be told
};

/// One a process: the library's services live as long.
Subject& TheModel();
Subject& TheLibrary();

}  // namespace ondaro::model

#endif
