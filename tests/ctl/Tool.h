#ifndef ONDARO_TESTS_CTL_TOOL_H
#define ONDARO_TESTS_CTL_TOOL_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "bus/ChildProcess.h"

namespace ondaro::test {

using Words = std::vector<std::string>;

struct Outcome {
  int code;
  std::string out;
  std::string err;
};

/// A test of ondaro-ctl with a set, that is a settings store, of its own.
class ToolTest : public testing::Test {
 protected:
  ToolTest();
  ~ToolTest() override;

  /// A file or directory of the test's own, removed at its end.
  std::string Path(const std::string& name) const { return m_directory + "/" + name; }

  /// Changes to another set, made at first use.
  void UseSet(const std::string& name) const;

  /// Runs the tool to its end.
  Outcome Run(const Words& arguments, const std::string& input = {}) const;

  /// The same by the shell, in which $CTL is the tool.
  Outcome RunShell(const std::string& script) const;

  /// Starts the tool; its standard error goes into the file Path("stderr").
  std::unique_ptr<ChildProcess> Start(const Words& arguments) const;

  /// Starts the tool and reads on until it says that it is ready.
  std::unique_ptr<ChildProcess> StartReady(const Words& arguments) const;

  /// What the last one started wrote to standard error.
  std::string StandardError() const;

  /// Runs `set` and expects it to succeed.
  void Set(const std::string& name, const std::string& value) const;

 private:
  Outcome RunProgram(const Words& program, const std::string& input) const;

  std::string m_directory = testing::TempDir() + "ondaro-ctl-XXXXXX";
};

std::string ReadWholeFile(const std::string& path);

}  // namespace ondaro::test

#endif
