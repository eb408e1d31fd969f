#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <string_view>

#include "Verbs.h"
#include "properties/Properties.h"
#include "text/Text.h"

namespace ondaro::ctl {
namespace {

constexpr char LOG_VARIABLE[] = "ONDARO_HOST_LOG";

constexpr std::array<std::string_view, 7> LOG_LEVELS = {"verbose", "debug", "info", "warning",
                                                        "error",   "fatal", "off"};

constexpr char LOG_HELP[] =
    "Show the platform log from LEVEL on: verbose, debug, info, warning,\n"
    "error, fatal or off; SINK is stderr or a file. Default: what\n"
    "ONDARO_HOST_LOG says, else off. Only for the backend of an\n"
    "ordinary Linux machine; of no effect on other sets";

constexpr std::size_t HELP_COLUMN = 24;

constexpr char EXIT_CODES[] =
    "--json and --log go with every verb. A word that begins with '-' goes after '--'.\n"
    "\n"
    "Exit codes: 0 done, 1 failed, 2 wrong usage, 3 no such property,\n"
    "            4 bus or daemon absent, 5 timeout";

std::string CheckLog(const std::string& log) {
  const std::string_view level(log.data(), std::min(log.find(':'), log.size()));
  return std::find(LOG_LEVELS.begin(), LOG_LEVELS.end(), level) != LOG_LEVELS.end()
             ? ""
             : "'" + log + "' begins with no level that the log has";
}

void AddGlobalOptions(CLI::App& app, Session& session, std::string& log) {
  app.add_flag_callback(
      "--json", [&session] { session.output.UseJson(); }, "Print JSON, one object a line");
  app.add_option("--log", log, LOG_HELP)->type_name("LEVEL[:SINK]")->check(CheckLog);
  app.set_version_flag("--version", "ondaro-ctl " ONDARO_CTL_VERSION);
}

void AddVerbs(CLI::App& app, Session& session) {
  AddPropertyVerbs(app, session);
  AddDumpVerbs(app, session);
  AddWatchVerbs(app, session);
  AddStoreVerbs(app, session);
  AddAuthVerbs(app, session);
  AddMessageVerbs(app, session);
  AddSendVerb(app, session);
  AddDoctorVerb(app, session);
  AddTraceVerbs(app, session);
}

/// The innermost verb given, for "ondaro-ctl store get --help".
const CLI::App& VerbOf(const CLI::App& app) {
  const auto given = app.get_subcommands();
  return given.empty() ? app : VerbOf(*given.front());
}

std::string FullName(const CLI::App& verb) {
  const CLI::App* const parent = verb.get_parent();
  return parent == nullptr ? "ondaro-ctl" : FullName(*parent) + " " + verb.get_name();
}

std::string DescribeUnknownOption(const CLI::App& app, const std::string& word) {
  std::vector<std::string> names;
  for (const CLI::App* known : {&app, &VerbOf(app)}) {
    for (const CLI::Option* option : known->get_options()) {
      names.push_back(option->get_name());
    }
  }
  const std::string offer = Suggest(word, names);
  return "there is no option '" + word + "'" +
         (offer.empty() ? "; a word that begins with '-' goes after '--'" : offer);
}

std::string DescribeMissingVerb(const CLI::App& verb, const std::vector<std::string>& words) {
  if (words.empty()) {
    return "a verb is missing";
  }
  if (words.front() == "unset") {
    return "there is no verb 'unset': the settings of a set can be written, not removed";
  }
  std::vector<std::string> names;
  for (const CLI::App* known : verb.get_subcommands({})) {
    names.push_back(known->get_name());
  }
  return "there is no verb '" + words.front() + "'" + Suggest(words.front(), names);
}

std::string DescribeWrongUsage(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<std::string> unused = app.remaining(true);
  if (!unused.empty() && unused.front().rfind('-', 0) == 0) {
    return DescribeUnknownOption(app, unused.front());
  }
  const CLI::App& verb = VerbOf(app);
  if (verb.get_require_subcommand_min() > 0) {
    return DescribeMissingVerb(verb, unused);
  }
  if (!unused.empty()) {
    return "'" + unused.front() + "' is one word too many";
  }
  const std::string reason = error.what();
  const bool isCount = error.get_name() == "ArgumentMismatch";
  return isCount ? reason.substr(0, reason.find(':')) + " goes once, and takes one value" : reason;
}

/// Parses; true when a verb is to be run. Help and version are printed.
bool Parse(CLI::App& app, const Session& session, int argc, char** argv) {
  try {
    app.parse(argc, argv);
    return true;
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0) {
      throw Failure(ExitCode::Usage, DescribeWrongUsage(app, error));
    }
    std::stringstream text;
    app.exit(error, text, text);
    for (std::string line; std::getline(text, line);) {
      session.output.Line(line);
    }
    return false;
  }
}

void Run(Session& session, int argc, char** argv) {
  std::string log;
  CLI::App app("Reads, changes and watches a media-sharing receiver's set.", "ondaro-ctl");
  app.group("Verbs");  // which its verbs inherit
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(EXIT_CODES);
  app.get_formatter()->column_width(HELP_COLUMN);
  app.get_formatter()->label("SUBCOMMAND", "VERB");
  app.get_formatter()->label("TEXT", "");
  AddGlobalOptions(app, session, log);
  AddVerbs(app, session);
  try {
    if (Parse(app, session, argc, argv)) {
      // The library writes ordinary calls at error priority: the log is quiet unless asked for.
      setenv(LOG_VARIABLE, log.empty() ? "off" : log.c_str(), log.empty() ? 0 : 1);
      session.verb();
    }
  } catch (const Failure& failure) {
    session.output.Error(failure.what());
    if (failure.Code() == ExitCode::Usage) {
      session.output.Hint("See '" + FullName(VerbOf(app)) + " --help'");
    }
    throw;
  }
}

/// The one place where everything thrown ends.
ExitCode Main(int argc, char** argv) {
  Session session;
  try {
    Run(session, argc, argv);
    return ExitCode::Done;
  } catch (const Failure& failure) {
    return failure.Code();
  } catch (const OutputClosed&) {
    return ExitCode::Done;
  } catch (const std::bad_alloc&) {
    session.output.Error("out of memory");
  } catch (...) {
    session.output.Error("the library failed" + SeeLog());
  }
  return ExitCode::Failed;
}

/// Keeps files opened later from taking the place of a standard stream that came closed.
void OccupyStandardStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) == -1) {
      open("/dev/null", O_RDONLY);  // takes the lowest free number; writing to it fails
    }
  }
}

}  // namespace
}  // namespace ondaro::ctl

int main(int argc, char** argv) {
  // GLib warns of what the tool itself reports, a name refused for instance.
  g_log_set_handler(
      "GLib-GIO", G_LOG_LEVEL_WARNING, [](const char*, GLogLevelFlags, const char*, gpointer) {},
      nullptr);
  ondaro::ctl::OccupyStandardStreams();
  // A reader that goes away shows when writing.
  std::signal(SIGPIPE, SIG_IGN);
  return static_cast<int>(ondaro::ctl::Main(argc, argv));
}
