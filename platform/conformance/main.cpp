// ondaro-platform-check: judges a port against the seam's contract.
#include <dlfcn.h>
#include <json/json.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>

#include "Judge.h"
#include "platform/Log.h"

namespace {

using namespace conformance;

constexpr int CONFORMANT = 0;
constexpr int NOT_CONFORMANT = 1;
constexpr int NOT_RUN = 2;
constexpr int SIGNAL_BASE = 128;

struct Options {
  std::string declaration;
  std::string json;
  std::vector<std::string> only;
  bool isListing = false;
  int patienceMs = 5000;
};

void Describe(CLI::App& app, Options& options) {
  app.add_option("declaration", options.declaration, "What the port declares: conformance.conf");
  app.add_option("--json", options.json, "Write the results as JSON, too")->type_name("FILE");
  app.add_option("--only", options.only,
                 "Judge these clauses (SET-05) or families (SET) only; the verdict is of them")
      ->type_name("CLAUSE")
      ->allow_extra_args(false);
  app.add_option("--patience", options.patienceMs,
                 "How long an event may take, in ms; a clause ends after ten times as long")
      ->capture_default_str()
      ->check(CLI::Range(100, 60000));
  app.add_flag("--list", options.isListing, "List the clauses and end");
}

std::string Taken(char* text) { return std::unique_ptr<char, void (*)(void*)>(text, g_free).get(); }

std::string DigestOfFile(const std::string& path) {
  const std::string bytes = ReadFile(path);
  return Taken(g_compute_checksum_for_string(G_CHECKSUM_SHA256, bytes.data(),
                                             static_cast<gssize>(bytes.size())));
}

void WriteJson(const Judge& judge, const std::string& port, const Options& options) {
  Json::Value root;
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&platform_log_print), &info) != 0) {
    root["portLibrary"] = std::filesystem::path(info.dli_fname).filename().string();
    root["portLibrarySha256"] = DigestOfFile(info.dli_fname);
  }
  root["port"] = port;
  root["portVersion"] = ONDARO_PORT_VERSION;
  root["kitVersion"] = ONDARO_KIT_VERSION;
  root["declarationSha256"] = DigestOfFile(options.declaration);
  root["conformant"] = judge.IsConformant();
  root["verdict"] = judge.Verdict();
  for (const std::string& note : judge.Notes()) {
    root["notes"].append(note);
  }
  for (const Result& result : judge.Results()) {
    Json::Value clause;
    clause["clause"] = result.clause;
    clause["sentence"] = result.sentence;
    clause["status"] = Word(result.answer.status);
    clause["text"] = Taken(g_utf8_make_valid(result.answer.text.c_str(), -1));
    clause["seconds"] = result.seconds;
    root["clauses"].append(clause);
  }
  WriteFile(options.json, root.toStyledString());
}

int JudgePort(const Options& options) {
  const std::string port = *Declaration(options.declaration).Find("port");
  Judge judge(options.declaration, Milliseconds(options.patienceMs));
  judge.Run(options.only);
  for (const std::string& note : judge.Notes()) {
    std::cout << "note: " << note << '\n';
  }
  std::cout << "verdict: " << port << " is " << judge.Verdict() << std::endl;
  if (!options.json.empty()) {
    WriteJson(judge, port, options);
  }
  return judge.Signal() != 0    ? SIGNAL_BASE + judge.Signal()
         : judge.IsConformant() ? CONFORMANT
                                : NOT_CONFORMANT;
}

int Run(int argc, char** argv) {
  Options options;
  CLI::App app("Judges a port against the contract of the platform seam.", "ondaro-platform-check");
  Describe(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == EXIT_SUCCESS ? EXIT_SUCCESS : NOT_RUN;
  }
  if (options.isListing) {
    for (const Clause& clause : Clauses()) {
      std::cout << clause.id << "  " << clause.sentence << '\n';
    }
    return EXIT_SUCCESS;
  }
  return JudgePort(options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Serve({argv + 1, argv + argc}) ? EXIT_SUCCESS : Run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "ondaro-platform-check: " << error.what() << '\n';
    return NOT_RUN;
  }
}
