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

constexpr int NOT_RUN = 2;
constexpr int SIGNAL_BASE = 128;

std::string Taken(char* text) { return std::unique_ptr<char, void (*)(void*)>(text, g_free).get(); }

std::string DigestOfFile(const std::string& path) {
  const std::string bytes = ReadFile(path);
  return Taken(g_compute_checksum_for_string(G_CHECKSUM_SHA256, bytes.data(),
                                             static_cast<gssize>(bytes.size())));
}

void WriteJson(const Judgement& judgement, const std::string& declaration,
               const std::string& file) {
  Json::Value root;
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&platform_log_print), &info) != 0) {
    root["portLibrary"] = std::filesystem::path(info.dli_fname).filename().string();
    root["portLibrarySha256"] = DigestOfFile(info.dli_fname);
  }
  root["port"] = Declared("port");
  root["portVersion"] = ONDARO_PORT_VERSION;
  root["kitVersion"] = ONDARO_KIT_VERSION;
  root["declarationSha256"] = DigestOfFile(declaration);
  root["conformant"] = judgement.IsConformant();
  root["verdict"] = judgement.Verdict();
  for (const std::string& note : judgement.notes) {
    root["notes"].append(note);
  }
  for (const auto& [id, answer] : judgement.results) {
    Json::Value clause;
    clause["clause"] = id;
    clause["sentence"] = Clauses().at(id);
    clause["status"] = Word(answer.status);
    clause["text"] = Taken(g_utf8_make_valid(answer.text.c_str(), -1));
    clause["seconds"] = answer.seconds;
    root["clauses"].append(clause);
  }
  WriteFile(file, root.toStyledString());
}

int Run(int argc, char** argv) {
  std::string declaration;
  std::string json;
  std::vector<std::string> only;
  bool isListing = false;
  int patienceMs = 5000;
  CLI::App app("Judges a port against the contract of the platform seam.", "ondaro-platform-check");
  app.add_option("declaration", declaration, "What the port declares: conformance.conf");
  app.add_option("--json", json, "Write the results as JSON, too")->type_name("FILE");
  app.add_option("--only", only,
                 "Judge these clauses (SET-05) or families (SET) only; the verdict is of them")
      ->type_name("CLAUSE")
      ->allow_extra_args(false);
  app.add_option("--patience", patienceMs,
                 "How long an event may take, in ms; a clause ends after ten times as long")
      ->capture_default_str()
      ->check(CLI::Range(100, 60000));
  app.add_flag("--list", isListing, "List the clauses and end");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == EXIT_SUCCESS ? EXIT_SUCCESS : NOT_RUN;
  }
  if (isListing) {
    for (const auto& [clause, sentence] : Clauses()) {
      std::cout << clause << "  " << sentence << '\n';
    }
    return EXIT_SUCCESS;
  }
  const Judgement judgement = Judge(declaration, Milliseconds(patienceMs), only);
  for (const std::string& note : judgement.notes) {
    std::cout << "note: " << note << '\n';
  }
  std::cout << "verdict: " << Declared("port") << " is " << judgement.Verdict() << std::endl;
  if (!json.empty()) {
    WriteJson(judgement, declaration, json);
  }
  return judgement.signal != 0      ? SIGNAL_BASE + judgement.signal
         : judgement.IsConformant() ? EXIT_SUCCESS
                                    : EXIT_FAILURE;
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
