// ondaro-platform-check: judges a port against the seam's contract.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "Judging.h"
#include "Probes.h"
#include "Supervisor.h"
#include "platform/Log.h"

namespace {

using namespace conformance;

constexpr int CONFORMANT = 0;
constexpr int NOT_CONFORMANT = 1;
constexpr int NOT_RUN = 2;
constexpr int SIGNAL_BASE = 128;

constexpr int DEFAULT_PATIENCE_MS = 5000;

struct Options {
  std::string declaration;
  std::string junit;
  std::string json;
  std::string statement;
  std::vector<std::string> only;
  bool isListing = false;
  int patienceMs = DEFAULT_PATIENCE_MS;
};

void Describe(CLI::App& app, Options& options) {
  app.add_option("declaration", options.declaration,
                 "What the port declares: its conformance.conf");
  app.add_option("--junit", options.junit, "Write the results as JUnit XML")->type_name("FILE");
  app.add_option("--json", options.json, "Write the results as JSON")->type_name("FILE");
  app.add_option("--statement", options.statement, "Write the statement of conformance")
      ->type_name("FILE");
  app.add_option("--only", options.only, "Judge these clauses only; the verdict is of them")
      ->type_name("CLAUSE")
      ->allow_extra_args(false);
  app.add_option("--patience", options.patienceMs, "How long an event may take, in ms")
      ->capture_default_str()
      ->check(CLI::Range(100, 60000));
  app.add_flag("--list", options.isListing, "List the clauses and end");
}

std::vector<Clause> WantedClauses(const std::vector<std::string>& only) {
  std::vector<Clause> wanted = Clauses();
  for (const std::string& id : only) {
    if (std::none_of(wanted.begin(), wanted.end(),
                     [&](const Clause& clause) { return clause.id == id; })) {
      throw std::runtime_error("there is no clause " + id);
    }
  }
  if (!only.empty()) {
    wanted.erase(std::remove_if(wanted.begin(), wanted.end(),
                                [&](const Clause& clause) {
                                  return std::find(only.begin(), only.end(), clause.id) ==
                                         only.end();
                                }),
                 wanted.end());
  }
  return wanted;
}

/// The file that the port's functions are in.
std::string PortLibrary() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&platform_log_print), &info) == 0) {
    return "unknown";
  }
  return std::filesystem::path(info.dli_fname).filename().string() +
         " sha256:" + DigestOfFile(info.dli_fname);
}

Report NewReport(const Options& options) {
  Report report;
  report.port = *Declaration(options.declaration).Find(keys::PORT);
  report.portVersion = ONDARO_PORT_VERSION;
  report.kitVersion = ONDARO_KIT_VERSION;
  report.portLibrary = PortLibrary();
  report.declarationDigest = DigestOfFile(options.declaration);
  return report;
}

void WriteFiles(const Options& options, const Report& report) {
  if (!options.junit.empty()) {
    WriteJunit(report, options.junit);
  }
  if (!options.json.empty()) {
    WriteJson(report, options.json);
  }
  if (!options.statement.empty()) {
    WriteStatement(report, options.statement);
  }
}

int JudgePort(const Options& options) {
  Report report = NewReport(options);
  Supervisor supervisor(std::filesystem::absolute(options.declaration),
                        std::chrono::milliseconds(options.patienceMs));
  supervisor.Judge(WantedClauses(options.only), report);
  for (const std::string& remark : report.remarks) {
    std::cout << "remark: " << remark << '\n';
  }
  std::cout << "verdict: " << report.port << " is " << report.Verdict() << std::endl;
  WriteFiles(options, report);
  if (supervisor.Interruption() != 0) {
    return SIGNAL_BASE + supervisor.Interruption();
  }
  return report.IsConformant() ? CONFORMANT : NOT_CONFORMANT;
}

/// A process started by another of the kit: OPTION DECLARATION SCRATCH PATIENCE WHAT...
int Serve(const std::vector<std::string>& arguments) {
  SetContext({Declaration(arguments[1]), arguments[2],
              std::chrono::milliseconds(std::stoi(arguments[3]))});
  if (arguments[0] == worker::OPTION) {
    return worker::Run(arguments[4]);
  }
  return probes::RunProbe(arguments[4], {arguments.begin() + 5, arguments.end()}) ? EXIT_SUCCESS
                                                                                  : EXIT_FAILURE;
}

bool IsServing(const std::vector<std::string>& arguments) {
  return arguments.size() >= 5 &&
         (arguments[0] == worker::OPTION || arguments[0] == probes::OPTION);
}

int Run(int argc, char** argv) {
  if (const std::vector<std::string> arguments(argv + 1, argv + argc); IsServing(arguments)) {
    return Serve(arguments);
  }
  Options options;
  CLI::App app("Judges a port against the contract of the platform seam.", "ondaro-platform-check");
  Describe(app, options);
  CLI11_PARSE(app, argc, argv);
  if (options.isListing) {
    for (const Clause& clause : Clauses()) {
      std::cout << clause.id << "  " << clause.title << '\n';
    }
    return EXIT_SUCCESS;
  }
  if (options.declaration.empty()) {
    throw std::runtime_error("no declaration given");
  }
  return JudgePort(options);
}

}  // namespace

int main(int argc, char** argv) {
  int googleTestSees = 1;
  testing::InitGoogleTest(&googleTestSees, argv);
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "ondaro-platform-check: " << error.what() << '\n';
    return NOT_RUN;
  }
}
