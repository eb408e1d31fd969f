#ifndef ONDARO_TESTS_MODEL_SUBJECT_H
#define ONDARO_TESTS_MODEL_SUBJECT_H

#include <map>

#include "model/Step.h"

namespace ondaro::model {

/// What is observed of a step, in order: log lines, events, calls of the store, results.
using Lines = std::vector<std::string>;

/// What steps are done to, the library or the model of it, with all that is around it: the store's
/// faults, what callbacks do, changes by others.
class Subject {
 public:
  virtual ~Subject() = default;
  /// Null is for what was observed when its services were made.
  Lines Perform(const Step* step);

 protected:
  using Values = std::map<std::string, Value>;
  explicit Subject(Values& store) : m_store(store) {}

  /// The step's exported function, and its result as a text.
  virtual std::string Call(const Step& step) = 0;
  virtual void Notify(const std::string& key, const News& news) = 0;
  /// All messages that are on their way, and those that they cause.
  virtual void Deliver() = 0;
  /// Appends the lines that it has made by itself.
  virtual void Collect() {}

  void Note(const char* kind, const std::string& what);
  /// What the store does at each call of it: whether it works.
  bool IsStoreWorking(const std::string& call);
  /// What a callback does: a few steps, and an exception at the end of some.
  void RunScript(unsigned number, const char* data);

  Lines m_lines;
  Values& m_store;

 private:
  void Do(const Step& step);
  void Change(const Step& step);
  void Settle();

  int m_nScriptsLeft = 0;
  Fault m_fault = Fault::NONE;
  Lines m_written;  // keys whose subscribers are still to be told
};

/// One a process: the library's services live as long.
Subject& TheModel();
Subject& TheLibrary();

}  // namespace ondaro::model

#endif
