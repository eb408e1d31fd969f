#ifndef ONDARO_CTL_OUTPUT_H
#define ONDARO_CTL_OUTPUT_H

#include <json/value.h>

#include <string>
#include <string_view>

namespace ondaro::ctl {

/// Thrown when nobody reads standard output any more; ends the tool without a word.
struct OutputClosed {};

/// Results go to standard output, all else to standard error. Every line is written at once.
class Output {
 public:
  Output();

  void UseJson() { m_json = true; }
  bool IsJson() const { return m_json; }

  /// A line of plain text on standard output.
  void Line(std::string_view text) const;

  /// The same result in the form asked for: the object with --json, else the text.
  void Result(std::string_view text, const Json::Value& object) const;

  /// Tells a script that reads along that nothing slips by from now on: on standard output, or
  /// on standard error when only objects may go there.
  void Ready() const;

  /// A remark on standard error.
  void Note(std::string_view text) const;
  void Error(std::string_view text) const;

  /// Set off on a terminal, unchanged elsewhere.
  std::string Emphasis(std::string_view text) const;

 private:
  bool m_json = false;
  bool m_colourOut;
  bool m_colourErr;
};

/// The object as one line.
std::string CompactJson(const Json::Value& object);

/// `bytes` as a JSON string, in which what is not UTF-8 is replaced.
Json::Value JsonText(std::string_view bytes);

}  // namespace ondaro::ctl

#endif
