#include "model/Step.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <istream>
#include <iterator>
#include <ostream>

namespace ondaro::model {

namespace {

struct OpInfo {
  const char* name;
  unsigned weight;
};

// In the order of Op.
constexpr std::array<OpInfo, static_cast<std::size_t>(Op::COUNT)> OPS = {
    {{"get", 10},        {"set", 10},         {"watch", 8},
     {"unwatch", 3},     {"server-watch", 6}, {"server-unwatch", 1},
     {"server-send", 8}, {"client-watch", 6}, {"client-unwatch", 4},
     {"client-send", 8}, {"settle", 8},       {"create", 2},
     {"change", 12},     {"store", 2},        {"module", 4},
     {"generate", 3},    {"sign", 3},         {"chain", 1},
     {"destroy", 4},     {"peer-signal", 3},  {"peer-call", 3},
     {"name", 0}}};
constexpr unsigned OPS_OF_CALLBACKS = static_cast<unsigned>(Op::SETTLE);

struct Key {
  std::string property, store;  // where the settings store keeps it, if it does
};
const Key KEYS[] = {
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
    {"ONDARO_STATUS:a", ""},
    {"", ""},
};
const std::string EVENT_NAMES[] = {"a", "b", "B", "", "%s%n", "\xC3\xA4", "\xFF"};
const std::string VALUES[] = {"x",
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
                              std::string("a\0b", 3),
                              std::string(20'000, 'l')};
constexpr int NUMBERS[] = {0, 1, 2, 3, 7, -1};
// The first is the contract's.
const char* const TYPES[] = {"(ss)", "(ss)", "(s)", "()", "(si)", "(sss)", "(is)", "(ay)"};
constexpr unsigned HANDLE_AND_THIRD = NULL_HANDLE | NULL_THIRD,
                   ALL_BUT_FIRST = HANDLE_AND_THIRD | NULL_SECOND, ALL = ALL_BUT_FIRST | NULL_FIRST;
constexpr unsigned HOWS[] = {
    EXPORTED, EXPORTED,         EXPORTED,      EXPORTED,   EXPORTED,    EXPORTED,    EXPORTED,
    EXPORTED, HANDLE_AND_THIRD, ALL_BUT_FIRST, NULL_FIRST, NULL_SECOND, NULL_HANDLE, ALL,
    WRAPPER,  WRAPPER,          WRAPPER,       WRAPPER,    WRAPPER};

template <typename Table>
const auto& Pick(const Table& table, unsigned number) {
  return table[number % std::size(table)];
}

class Dice {
 public:
  explicit Dice(unsigned seed) : m_engine(seed) {}
  // Not a standard distribution: those differ from library to library.
  unsigned Below(unsigned limit) { return static_cast<unsigned>(m_engine()) % limit; }
  Step Throw(unsigned ops) {
    unsigned weights = 0;
    for (unsigned op = 0; op < ops; ++op) {
      weights += OPS[op].weight;
    }
    unsigned chosen = Below(weights);
    unsigned op = 0;
    for (; chosen >= OPS[op].weight; ++op) {
      chosen -= OPS[op].weight;
    }
    return {static_cast<Op>(op), Argument(), Argument(), Argument()};
  }

 private:
  // Small ones often, so that steps meet each other.
  unsigned Argument() { return Below(Below(2) == 0 ? 4 : 1024); }

  std::mt19937 m_engine;
};

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Step& step) {
  return stream << OPS[static_cast<std::size_t>(step.op)].name << ' ' << step.a << ' ' << step.b
                << ' ' << step.c;
}

std::istream& operator>>(std::istream& stream, Step& step) {
  std::string name;
  stream >> name >> step.a >> step.b >> step.c;
  const auto* info = std::find_if(OPS.begin(), OPS.end(),
                                  [&](const OpInfo& candidate) { return name == candidate.name; });
  if (info == OPS.end()) {
    stream.setstate(std::ios::failbit);
  }
  step.op = static_cast<Op>(info - OPS.begin());
  return stream;
}

// Without its name the server hears no calls any more, so that comes late.
std::vector<Step> RandomSteps(unsigned seed, unsigned count) {
  Dice dice(seed);
  std::vector<Step> steps;
  while (steps.size() < count) {
    const bool isLate = steps.size() > count - count / 20;
    steps.push_back(isLate && dice.Below(10) == 0 ? Step{Op::NAME, 0, 0, 0}
                                                  : dice.Throw(static_cast<unsigned>(Op::COUNT)));
  }
  return steps;
}

unsigned HowOf(const Step& step) { return Pick(HOWS, step.c); }

std::string KeyOf(const Step& step) {
  const bool hasData = step.op == Op::GET && step.b % 4 == 0;
  return Pick(KEYS, step.a).property + (hasData ? ":" + Cut(ValueOf(step.b)) : "");
}

std::string EventNameOf(const Step& step) { return Pick(EVENT_NAMES, step.a); }

std::string ValueOf(unsigned number) { return Pick(VALUES, number); }

std::string Cut(const std::string& text) { return text.substr(0, text.find('\0')); }

const char* TypeOf(const Step& step) { return Pick(TYPES, step.c); }

const int* NumberOf(const Step& step) { return step.c % 2 == 0 ? &Pick(NUMBERS, step.b) : nullptr; }

std::string StoreKeyOf(const std::string& property) {
  return std::find_if(std::begin(KEYS), std::end(KEYS),
                      [&](const Key& key) { return key.property == property; })
      ->store;
}

Family FamilyOf(const Step& step) { return static_cast<Family>(step.a % 4); }

Fault FaultOf(unsigned number) {
  constexpr unsigned LIMIT = 12;  // those without a fault are more
  const unsigned fault = number % LIMIT;
  return fault < static_cast<unsigned>(Fault::COUNT) ? static_cast<Fault>(fault) : Fault::NONE;
}

bool IsKeyBroken(const Step& step) { return step.b % 7 == 5; }

bool IsHashBroken(const Step& step) { return step.b % 7 == 6; }

std::string PeerText(const std::string& text) {
  return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE ? text
                                                                                          : "?";
}

bool IsUnreadable(const Step& step) { return step.c % 16 == 1; }

bool IsWithoutNode(const Step& step) { return step.c % 16 == 3; }

unsigned ScriptNumberOf(const Step& step) {
  return (HowOf(step) & NULL_SECOND) != 0 ? NO_SCRIPT : step.b % SCRIPTS;
}

const Script& ScriptOf(unsigned number) {
  static const std::vector<Script> scripts = [] {
    std::vector<Script> made;
    for (unsigned seed = 0; seed < SCRIPTS; ++seed) {
      Dice dice(seed);
      Script script{{}, Fault::NONE};
      for (unsigned left = dice.Below(4); left > 0; --left) {
        script.steps.push_back(dice.Throw(OPS_OF_CALLBACKS));
      }
      if (dice.Below(3) == 0) {
        script.ending = dice.Below(2) == 0 ? Fault::STANDARD : Fault::FOREIGN;
      }
      made.push_back(script);
    }
    return made;
  }();
  return scripts[number];
}

}  // namespace ondaro::model
