#ifndef ONDARO_CTL_VERBS_H
#define ONDARO_CTL_VERBS_H

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/ExitCode.h"
#include "text/Output.h"

namespace ondaro::ctl {

/// What the command line asks for: the verb is chosen while the line is parsed and run afterwards.
struct Session {
  Output output;
  std::function<void()> verb;
};

void AddPropertyVerbs(CLI::App& app, Session& session);  // get set list
void AddDumpVerbs(CLI::App& app, Session& session);      // dump load
void AddWatchVerbs(CLI::App& app, Session& session);     // watch wait
void AddStoreVerbs(CLI::App& app, Session& session);     // store get|set|watch device
void AddAuthVerbs(CLI::App& app, Session& session);      // auth generate|sign|system-id
void AddMessageVerbs(CLI::App& app, Session& session);   // serve listen
void AddSendVerb(CLI::App& app, Session& session);       // send
void AddDoctorVerb(CLI::App& app, Session& session);     // doctor
void AddTraceVerbs(CLI::App& app, Session& session);     // trace

struct NoOptions {};

/// Of a verb that shows what arrives.
struct FeedOptions {
  std::vector<std::string> names;  // of what
  std::uint64_t count = 0;         // how often, 0 for without end
  std::optional<double> seconds;   // how long
};

/// Adds the names, -n and --timeout.
CLI::Option& AddFeed(std::pair<CLI::App&, FeedOptions&> verb, const char* name,
                     const char* description);
void AddTimeout(CLI::App& verb, std::optional<double>& seconds,
                const char* description = "Give up after SECONDS, with exit code 5");
inline constexpr double LONGEST_TIMEOUT = 1'000'000.0;

/// --speed of a verb that plays back.
CLI::Option& AddSpeed(CLI::App& verb, double& speed);

/// Adds a verb that runs `run` with its options. They are for the caller to fill in from the
/// command line, and live until then.
template <class Options>
std::pair<CLI::App&, Options&> AddVerb(CLI::App& app, Session& session, const char* name,
                                       const char* description,
                                       void (*run)(const Output& output, const Options& options)) {
  auto options = std::make_shared<Options>();
  CLI::App& verb = *app.add_subcommand(name, description);
  verb.callback([&session, options, run] {
    session.verb = [&session, options, run] { run(session.output, *options); };
  });
  return {verb, *options};
}

}  // namespace ondaro::ctl

#endif
