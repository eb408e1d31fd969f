#include "Tool.h"

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace ondaro::test {
namespace {

Words Prepend(const Words& front, const Words& back) {
  Words all = front;
  all.insert(all.end(), back.begin(), back.end());
  return all;
}

}  // namespace

ToolTest::ToolTest() {
  if (mkdtemp(m_directory.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), m_directory);
  }
  setenv("CTL", ONDARO_CTL, 1);
  setenv("LIBRARY", ONDARO_TEST_LIBRARY, 1);
  setenv("DESCRIPTION", ONDARO_TEST_DESCRIPTION, 1);
  unsetenv("ONDARO_HOST_LOG");
  unsetenv("NO_COLOR");
  UseSet("set");
}

ToolTest::~ToolTest() {
  std::error_code ignored;
  std::filesystem::remove_all(m_directory, ignored);
}

void ToolTest::UseSet(const std::string& name) const {
  std::filesystem::create_directory(Path(name));
  setenv("ONDARO_HOST_STATE", Path(name).c_str(), 1);
}

Outcome ToolTest::Run(const Words& arguments, const std::string& input) const {
  return RunProgram(Prepend({ONDARO_CTL}, arguments), input);
}

Outcome ToolTest::RunShell(const std::string& script) const {
  return RunProgram({"sh", "-c", script}, {});
}

Outcome ToolTest::RunProgram(const Words& program, const std::string& input) const {
  const std::string error = Path("stderr of run");
  std::filesystem::remove(error);
  ChildProcess child(program, {false, error});
  child.Write(input);
  child.CloseInput();
  const std::string out = child.ReadAll();
  return {child.Wait(), out, ReadWholeFile(error)};
}

std::unique_ptr<ChildProcess> ToolTest::Start(const Words& arguments) const {
  std::filesystem::remove(Path("stderr"));
  return std::make_unique<ChildProcess>(Prepend({ONDARO_CTL}, arguments),
                                        ChildProcess::Options{false, Path("stderr")});
}

std::unique_ptr<ChildProcess> ToolTest::StartReady(const Words& arguments) const {
  auto child = Start(arguments);
  EXPECT_EQ(child->ReadLine(), "ready") << StandardError();
  return child;
}

std::string ToolTest::StandardError() const { return ReadWholeFile(Path("stderr")); }

void ToolTest::Set(const std::string& name, const std::string& value) const {
  const Outcome outcome = Run({"set", name, "--", value});
  EXPECT_EQ(outcome.code, 0) << outcome.err;
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace ondaro::test
