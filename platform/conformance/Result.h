#ifndef ONDARO_PLATFORM_CONFORMANCE_RESULT_H
#define ONDARO_PLATFORM_CONFORMANCE_RESULT_H

#include <string>
#include <vector>

namespace conformance {

enum class Status {
  PASSED,
  FAILED,
  ABSENT,      // declared not to be there, and optional
  UNDECLARED,  // mandatory, but the declaration lacks what the test needs
  BLOCKED,     // relies on another clause, which does not hold
};

const char* Word(Status status);
Status StatusOf(const std::string& word);

struct Result {
  std::string clause;
  std::string title;
  Status status = Status::FAILED;
  std::string text;  // why, unless passed
  double seconds = 0;
};

struct Report {
  std::string port;
  std::string portVersion;
  std::string kitVersion;
  std::string portLibrary;  // file name and digest of what was tested
  std::string declarationDigest;
  std::vector<Result> results;
  std::vector<std::string> remarks;  // what went wrong outside any clause

  std::size_t Count(Status status) const;
  bool IsConformant() const;
  /// One line.
  std::string Verdict() const;
  /// The same for the same port, versions and results, and for nothing else.
  std::string Digest() const;
};

/// Each throws std::runtime_error when the file cannot be written.
void WriteJunit(const Report& report, const std::string& path);
void WriteJson(const Report& report, const std::string& path);
void WriteStatement(const Report& report, const std::string& path);

/// As the run goes on.
void PrintResult(const Result& result);

std::string DigestOf(const std::string& bytes);
/// Throws std::runtime_error when the file cannot be read.
std::string DigestOfFile(const std::string& path);

}  // namespace conformance

#endif
