#ifndef ONDARO_CTL_OUTPUT_H
#define ONDARO_CTL_OUTPUT_H

#include <string>
#include <string_view>

#include "text/Json.h"

namespace ondaro::ctl {

/// Thrown when nobody reads standard output any more; ends the tool without a word.
struct OutputClosed {};

/// A line to be printed: a middle that is set off on a terminal, and what stands around it.
struct Row {
  std::string_view before;
  std::string_view marked;
  std::string_view after;
};

/// Results go to standard output, all else to standard error. Every line is written at once, and
/// made safe by OneLine().
class Output {
 public:
  Output();

  void UseJson() { m_json = true; }
  bool IsJson() const { return m_json; }

  /// A line of text on standard output.
  void Line(const Row& row) const;
  void Line(std::string_view text) const { Line(Row{text, {}, {}}); }

  /// The same result in the form asked for: the object with --json, else the text.
  void Result(const Json::Value& object, const Row& row) const;

  /// A value alone: byte for byte, but for a terminal on one line.
  void Value(const Json::Value& object, std::string_view bytes) const;

  /// Tells a script that reads along that nothing slips by from now on: on standard output, or
  /// on standard error when only objects may go there.
  void Ready() const;

  /// A remark on standard error.
  void Note(std::string_view text) const;
  void Error(std::string_view text) const;
  void Hint(std::string_view text) const;  // after an error

 private:
  void Print(std::string_view line) const;

  bool m_json = false;
  bool m_terminal;
  bool m_colourOut;
  bool m_colourErr;
};

}  // namespace ondaro::ctl

#endif
