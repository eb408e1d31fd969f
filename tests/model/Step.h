#ifndef ONDARO_TESTS_MODEL_STEP_H
#define ONDARO_TESTS_MODEL_STEP_H

#include <functional>
#include <iosfwd>
#include <random>
#include <string>
#include <vector>

/// What the random driver does to the library, as plain data: every step means something in every
/// state, so that any part of a sequence is a sequence too.
namespace ondaro::model {

enum class Op : unsigned {
  // a = key or event name, b = value or script, c = how the call is made
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
  // from here on not from within a callback
  SETTLE,         // everything on its way arrives
  CREATE,         // a = family
  CHANGE,         // a = key, b = value: by another process
  SCRIPT_STORE,   // a = fault
  SCRIPT_MODULE,  // a = what, b = value
  GENERATE,       // a = record
  SIGN,
  CHAIN,
  DESTROY,
  PEER_SIGNAL,  // a = event name, b = value, c = type
  PEER_CALL,
  NAME,  // the bus name goes and comes back
  COUNT
};

struct Step {
  Op op;
  unsigned a, b, c;
};

std::ostream& operator<<(std::ostream& stream, const Step& step);
std::istream& operator>>(std::istream& stream, Step& step);

std::vector<Step> RandomSteps(unsigned seed, unsigned count);

/// By the exported function with these of its arguments null, or by the wrapper.
constexpr unsigned EXPORTED = 0, NULL_FIRST = 1, NULL_SECOND = 2, NULL_THIRD = 4, NULL_HANDLE = 8,
                   WRAPPER = 16;
enum Family { CONFIG, AUTH, CLIENT, SERVER };
enum class Fault { NONE, STATUS, STANDARD, API, FOREIGN, COUNT };

unsigned HowOf(const Step& step);
/// A property's name; of a read sometimes with data behind a colon.
std::string KeyOf(const Step& step);
/// Where the settings store keeps a property; empty for one that it does not hold.
std::string StoreKeyOf(const std::string& property);
std::string EventNameOf(const Step& step);
/// By its number; may hold a NUL, '%' or bytes that are not UTF-8.
std::string ValueOf(unsigned number);
/// As C and the log's %s see it.
std::string Cut(const std::string& text);
/// What a peer sends: the type of the message's body, and texts that the bus can carry.
const char* TypeOf(const Step& step);
std::string PeerText(const std::string& text);
/// What a key can be changed to: a number, or nothing for a text.
const int* NumberOf(const Step& step);
Family FamilyOf(const Step& step);
Fault FaultOf(unsigned number);
constexpr unsigned RECORDS = 3;
/// Records without bytes and with a length.
bool IsKeyBroken(const Step& step);
bool IsHashBroken(const Step& step);
/// Changes that arrive as a node that cannot be read, or as no node at all.
bool IsUnreadable(const Step& step);
bool IsWithoutNode(const Step& step);

/// What a callback does when called: a few steps, and an exception at the end of some.
struct Script {
  std::vector<Step> steps;
  Fault ending;
};
constexpr unsigned SCRIPTS = 64;
/// Stands for no callback at all.
constexpr unsigned NO_SCRIPT = 0;
unsigned ScriptNumberOf(const Step& step);
const Script& ScriptOf(unsigned number);
/// How many scripts may run within one step: callbacks may cause each other without end.
constexpr int SCRIPTS_PER_STEP = 6;

/// What is observed of a step, in order: log lines, events, calls to the platform, results.
using Lines = std::vector<std::string>;
using Performer = std::function<Lines(const Step&)>;

/// What the scripted platform fails with. The library's side sets it, and with it the platform's
/// own script; the model reads both.
struct Faults {
  Fault store = Fault::NONE, module = Fault::NONE;
};

Performer MakeModel(const Faults& faults);
Performer MakeLibrary(Faults& faults);

}  // namespace ondaro::model

#endif
