#include "Result.h"

#include <glib.h>
#include <json/json.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace conformance {
namespace {

constexpr struct {
  Status status;
  const char* word;
  const char* inText;
} STATUSES[] = {{Status::PASSED, "passed", "passed"},
                {Status::FAILED, "failed", "FAILED"},
                {Status::ABSENT, "absent", "absent"},
                {Status::UNDECLARED, "undeclared", "UNDECLARED"},
                {Status::BLOCKED, "blocked", "BLOCKED"}};

constexpr char INDENT[] = "            ";

struct FreeText {
  void operator()(char* text) const { g_free(text); }
};

std::string Take(char* text) {
  const std::unique_ptr<char, FreeText> owned(text);
  return owned.get();
}

/// What XML 1.0 has no way to write is left out.
std::string Escaped(const std::string& text) {
  std::string valid = Take(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
  valid.erase(std::remove_if(valid.begin(), valid.end(),
                             [](char c) { return c >= 0 && c < ' ' && c != '\n' && c != '\t'; }),
              valid.end());
  return Take(g_markup_escape_text(valid.data(), static_cast<gssize>(valid.size())));
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  if (!file.flush()) {
    throw std::runtime_error(path + ": cannot be written");
  }
}

/// For the eye; the files have all of it.
std::string Indented(const std::string& text) {
  constexpr int MOST = 12;
  std::string indented;
  std::istringstream lines(text);
  int count = 0;
  for (std::string line; std::getline(lines, line);) {
    if (++count <= MOST) {
      indented += INDENT + line + "\n";
    }
  }
  if (count > MOST) {
    indented += INDENT + std::string("... and ") + std::to_string(count - MOST) + " lines more\n";
  }
  return indented;
}

/// One line a clause: what a digest is of.
std::string Lines(const Report& report) {
  std::string lines;
  for (const Result& result : report.results) {
    lines += result.clause + " " + Word(result.status) + "\n";
  }
  return lines;
}

std::string Heading(const Report& report) {
  return "port         " + report.port + " " + report.portVersion + "\n" +  //
         "library      " + report.portLibrary + "\n" +                      //
         "declaration  sha256:" + report.declarationDigest + "\n" +         //
         "kit          " + report.kitVersion + "\n" +                       //
         "verdict      " + report.Verdict() + "\n";
}

}  // namespace

const char* Word(Status status) { return STATUSES[static_cast<int>(status)].word; }

Status StatusOf(const std::string& word) {
  const auto* const found = std::find_if(std::begin(STATUSES), std::end(STATUSES),
                                         [&](const auto& entry) { return word == entry.word; });
  return found == std::end(STATUSES) ? Status::FAILED : found->status;
}

std::size_t Report::Count(Status status) const {
  return static_cast<std::size_t>(
      std::count_if(results.begin(), results.end(),
                    [&](const Result& result) { return result.status == status; }));
}

bool Report::IsConformant() const {
  return !results.empty() && remarks.empty() &&
         Count(Status::PASSED) + Count(Status::ABSENT) == results.size();
}

std::string Report::Verdict() const {
  std::string verdict = IsConformant() ? "conformant" : "not conformant";
  verdict += " (" + std::to_string(results.size()) + " clauses";
  for (const auto& entry : STATUSES) {
    if (const std::size_t count = Count(entry.status); count != 0) {
      verdict += ", " + std::to_string(count) + " " + entry.word;
    }
  }
  if (!remarks.empty()) {
    verdict += ", " + std::to_string(remarks.size()) + " remarks";
  }
  return verdict + ")";
}

std::string Report::Digest() const { return DigestOf(Heading(*this) + Lines(*this)); }

void WriteJunit(const Report& report, const std::string& path) {
  double seconds = 0;
  std::ostringstream cases;
  for (const Result& result : report.results) {
    seconds += result.seconds;
    cases << "    <testcase classname=\"" << result.clause.substr(0, 3) << "\" name=\""
          << result.clause << ' ' << Escaped(result.title) << "\" time=\"" << result.seconds << '"';
    const std::string text = Escaped(result.text);
    switch (result.status) {
      case Status::PASSED:
        cases << "/>\n";
        continue;
      case Status::ABSENT:
        cases << "><skipped message=\"" << text << "\"/></testcase>\n";
        continue;
      case Status::FAILED:
        cases << "><failure message=\"failed\">" << text << "</failure></testcase>\n";
        continue;
      case Status::UNDECLARED:
      case Status::BLOCKED:
        cases << "><error message=\"" << Word(result.status) << "\">" << text
              << "</error></testcase>\n";
    }
  }
  for (const std::string& remark : report.remarks) {
    cases << R"(    <testcase classname="run" name="remark"><error message=")" << Escaped(remark)
          << R"("/></testcase>)"
          << "\n";
  }
  const std::size_t errors =
      report.Count(Status::UNDECLARED) + report.Count(Status::BLOCKED) + report.remarks.size();
  std::ostringstream suite;
  suite << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites>\n"
        << "  <testsuite name=\"ondaro-platform-check " << Escaped(report.port) << "\" tests=\""
        << report.results.size() + report.remarks.size() << "\" failures=\""
        << report.Count(Status::FAILED) << "\" errors=\"" << errors << "\" skipped=\""
        << report.Count(Status::ABSENT) << "\" time=\"" << seconds << "\">\n"
        << cases.str() << "  </testsuite>\n</testsuites>\n";
  WriteFile(path, suite.str());
}

void WriteJson(const Report& report, const std::string& path) {
  Json::Value root;
  root["port"] = report.port;
  root["portVersion"] = report.portVersion;
  root["portLibrary"] = report.portLibrary;
  root["declaration"] = report.declarationDigest;
  root["kitVersion"] = report.kitVersion;
  root["conformant"] = report.IsConformant();
  root["verdict"] = report.Verdict();
  root["digest"] = report.Digest();
  root["remarks"] = Json::arrayValue;
  for (const std::string& remark : report.remarks) {
    root["remarks"].append(remark);
  }
  root["clauses"] = Json::arrayValue;
  for (const Result& result : report.results) {
    Json::Value clause;
    clause["clause"] = result.clause;
    clause["title"] = result.title;
    clause["status"] = Word(result.status);
    clause["text"] = result.text;
    clause["seconds"] = result.seconds;
    root["clauses"].append(clause);
  }
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  WriteFile(path, Json::writeString(builder, root) + "\n");
}

void WriteStatement(const Report& report, const std::string& path) {
  std::string text = "Statement of conformance to the seam of lib-ondaro-platform-tv\n\n";
  text += Heading(report);
  text += "result       sha256:" + report.Digest() + "\n\n";
  text += Lines(report);
  WriteFile(path, text);
}

void PrintResult(const Result& result) {
  const char* const word = STATUSES[static_cast<int>(result.status)].inText;
  std::cout << result.clause << "  " << word << std::string(11 - std::string(word).size(), ' ')
            << result.title << '\n'
            << Indented(result.text) << std::flush;
}

std::string DigestOf(const std::string& bytes) {
  return Take(g_compute_checksum_for_string(G_CHECKSUM_SHA256, bytes.data(),
                                            static_cast<gssize>(bytes.size())));
}

std::string DigestOfFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw std::runtime_error(path + ": cannot be read");
  }
  return DigestOf({std::istreambuf_iterator<char>(file), {}});
}

}  // namespace conformance
