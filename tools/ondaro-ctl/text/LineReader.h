#ifndef ONDARO_CTL_LINE_READER_H
#define ONDARO_CTL_LINE_READER_H

#include <functional>
#include <string>
#include <string_view>

#include "support/Descriptor.h"
#include "support/MainLoop.h"

namespace ondaro::ctl {

/// Reads a file, or standard input for "-", by lines. Everything the tool reads comes this way, so
/// that no input, however long, takes more memory than a line may have. Failures are a Failure.
class LineReader {
 public:
  using Handler = std::function<void(std::string_view line)>;

  explicit LineReader(const std::string& path);
  ~LineReader();

  /// Hands out all lines, of input that is kept as a whole: that has a bound as well.
  void ReadAll(const Handler& handler);

  /// Reads as the loop finds input, once called; calls `atEnd` at the end.
  void Follow(MainLoop& loop, Handler handler, std::function<void()> atEnd);

  /// The whole contents as they are, no longer than a line may be.
  std::string ReadWhole();

  /// Of the line handed out last: "FILE, line 3".
  std::string Place() const { return m_name + ", line " + std::to_string(m_lines); }

  const std::string& Name() const { return m_name; }

 private:
  [[noreturn]] void Fail(const std::string& reason) const;
  bool Receive(std::string& text) const;
  void RequireShort(const std::string& what) const;
  bool Read(const Handler& handler);

  std::string m_name;
  Descriptor m_input;
  std::string m_pending;  // the beginning of a line
  std::size_t m_lines = 0;
  guint m_nSource = 0;
  std::function<bool()> m_onReadable;  // false at the end
};

}  // namespace ondaro::ctl

#endif
