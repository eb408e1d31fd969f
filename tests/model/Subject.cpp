#include "model/Subject.h"

#include <stdexcept>
#include <utility>

#include "ondaro/api/CException.h"

namespace ondaro::model {

namespace {

/// Callbacks may cause each other without end.
constexpr int SCRIPTS_PER_STEP = 6;

void RaiseIf(Fault fault) {
  if (fault == Fault::STANDARD) {
    throw std::runtime_error("fault%s%n");
  }
  if (fault == Fault::FOREIGN) {
    throw 7;
  }
  if (fault == Fault::API) {
    throw NOndaroAPI::CAPIException("fault", "%s%n");
  }
}

}  // namespace

Lines Subject::Perform(const Step* step) {
  m_nScriptsLeft = SCRIPTS_PER_STEP;
  if (step != nullptr) {
    Do(*step);
  }
  Collect();
  return std::exchange(m_lines, {});
}

void Subject::Note(const char* kind, const std::string& what) {
  Collect();
  m_lines.push_back(std::string(kind) + " " + what);
}

void Subject::Do(const Step& step) {
  try {
    if (step.op < OPS_OF_CALLBACKS) {
      Note("RESULT", Call(step));
    } else if (step.op == SETTLE) {
      Settle();
    } else if (step.op == CHANGE) {
      Change(step);
    } else {
      m_fault = FaultOf(step);
    }
  } catch (int) {
    Note("THROWN", "foreign");
  }
}

bool Subject::IsStoreWorking(const std::string& call) {
  Note("STORE", call);
  RaiseIf(m_fault);
  const bool isWorking = m_fault == Fault::NONE;
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
  Steps steps;
  for (unsigned left = dice.Below(4); left > 0; --left) {
    steps.push_back(dice.Throw(OPS_OF_CALLBACKS));
  }
  for (const Step& step : steps) {
    Do(step);
  }
  if (data != before) {
    Note("EVENT", "with data that is gone");
  }
  if (dice.Below(3) == 0) {
    RaiseIf(dice.Below(2) == 0 ? Fault::STANDARD : Fault::FOREIGN);
  }
}

void Subject::Change(const Step& step) {
  const std::string& key = KeyOf(step).store;
  const char* const text = ValueOf(step);
  const unsigned kind = step.b / 16 % 16;
  News news = {kind != 0, std::nullopt};
  if (kind % 2 == 1) {
    news.value = Pick(NUMBERS, step.b);
  } else if (kind != 0 && text != nullptr) {
    news.value = text;
  }
  if (news.value && !key.empty()) {
    m_store[key] = *news.value;
  }
  Notify(key, news);
}

/// The store tells of the writes when all else has arrived; either may cause more.
void Subject::Settle() {
  for (Deliver(); !m_written.empty(); Deliver()) {
    for (const std::string& key : std::exchange(m_written, {})) {
      Notify(key, {true, m_store.at(key)});
    }
  }
}

}  // namespace ondaro::model
