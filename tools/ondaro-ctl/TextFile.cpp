#include "TextFile.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

#include "ExitCode.h"

namespace ondaro::ctl {
namespace {

[[noreturn]] void Fail(const std::string& path) {
  throw Failure(ExitCode::Failed, path + " cannot be read: " + std::strerror(errno));
}

std::ifstream Open(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  // A directory opens, and has nothing to give.
  if (!file || (file.peek() == EOF && file.bad())) {
    Fail(path);
  }
  file.clear();
  return file;
}

}  // namespace

std::string ReadFile(const std::string& path) {
  std::ifstream file = Open(path);
  std::string contents{std::istreambuf_iterator<char>(file), {}};
  if (file.bad()) {
    Fail(path);
  }
  return contents;
}

void ReadLines(const std::string& path, const LineHandler& handler) {
  std::ifstream file;
  const bool isStandard = path == "-";
  if (!isStandard) {
    file = Open(path);
  }
  std::istream& input = isStandard ? std::cin : file;
  const std::string name = isStandard ? "standard input" : path;
  std::size_t number = 0;
  for (std::string line; std::getline(input, line);) {
    handler(line, name + ", line " + std::to_string(++number));
  }
  if (input.bad()) {
    Fail(name);
  }
}

}  // namespace ondaro::ctl
