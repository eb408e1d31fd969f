#include "model/Subject.h"

#include <exception>
#include <stdexcept>
#include <utility>

#include "ondaro/api/CException.h"

namespace ondaro::model {

namespace {

/// Callbacks may cause each other without end.
constexpr int SCRIPTS_PER_STEP = 6;
constexpr int NUMBERS[] = {0, 1, 2, 3, 7, -1};

/// Of the store, by number: none, one that its status tells, and those that it raises.
const std::exception_ptr FAULTS[] = {
    nullptr, nullptr, std::make_exception_ptr(std::runtime_error("fault%s%n")),
    std::make_exception_ptr(7),
    std::make_exception_ptr(NOndaroAPI::CAPIException("fault", "%s%n"))};

void RaiseIf(const std::exception_ptr& fault) {
  if (fault != nullptr) {
    std::rethrow_exception(fault);
  }
}

}  // namespace

Lines Subject::Perform(const Step& step) {
  m_nScriptsLeft = SCRIPTS_PER_STEP;
  Do(step);
  Collect();
  return std::exchange(m_lines, {});
}

void Subject::Note(const char* kind, const std::string& what) {
  Collect();
  m_lines.push_back(std::string(kind) + " " + what);
}

void Subject::Do(const Step& step) {
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

bool Subject::IsStoreWorking(const std::string& call) {
  Note("STORE", call);
  RaiseIf(FAULTS[m_fault]);
  const bool isWorking = m_fault == 0;
  if (isWorking && call.rfind("set_", 0) == 0) {
    m_written.push_back(call.substr(call.find(' ') + 1));
  }
  return isWorking;
}

void Subject::RunScript(unsigned number, const char* data) {
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

void Subject::Change(const Step& step) {
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
void Subject::Settle() {
  for (Deliver(); !m_written.empty(); Deliver()) {
    for (const std::string& key : std::exchange(m_written, {})) {
      const std::optional<Value> value = m_store.at(key);
      Notify(key, &value);
    }
  }
}

}  // namespace ondaro::model
