#include <charconv>
#include <limits>
#include <type_traits>

#include "Verbs.h"

namespace ondaro::ctl {
namespace {

/// A check that lets the numbers from `least` to `most` through.
template <class Number>
auto Within(Number least, Number most, const char* what) {
  return [least, most, what](const std::string& text) {
    Number number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    // A leading zero of a whole number would be read as octal.
    const bool isOctal = std::is_integral_v<Number> && text.rfind('0', 0) == 0;
    const bool isFine = error == std::errc() && rest == end && number >= least && number <= most;
    return isFine && !isOctal ? "" : "'" + text + "' is not a number " + what;
  };
}

}  // namespace

void AddTimeout(CLI::App& verb, std::optional<double>& seconds, const char* description) {
  verb.add_option("--timeout", seconds, description)
      ->type_name("SECONDS")
      ->check(Within(0.0, LONGEST_TIMEOUT, "of seconds from 0 to 1000000"));
}

CLI::Option& AddSpeed(CLI::App& verb, double& speed) {
  return *verb.add_option("--speed", speed, "That many times as fast")
              ->type_name("N")
              ->check(Within(std::numeric_limits<double>::denorm_min(), 1'000'000.0,
                             "above 0, up to 1000000"));
}

CLI::Option& AddFeed(std::pair<CLI::App&, FeedOptions&> verb, const char* name,
                     const char* description) {
  auto& [app, options] = verb;
  app.add_option("-n,--count", options.count, "End after that many")
      ->type_name("COUNT")
      ->check(Within<std::uint64_t>(1, UINT64_MAX, "from 1"));
  AddTimeout(app, options.seconds);
  return *app.add_option(name, options.names, description);
}

}  // namespace ondaro::ctl
