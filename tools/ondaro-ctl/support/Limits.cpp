#include <charconv>
#include <cmath>

#include "support/Verbs.h"

namespace ondaro::ctl {
namespace {

constexpr double HIGHEST_SPEED = 1'000'000.0;

template <class Number>
bool Parse(const std::string& text, Number& number) {
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && rest == end;
}

std::string CheckSeconds(const std::string& text) {
  double seconds = 0;
  const bool isFine = Parse(text, seconds) && seconds >= 0 && seconds <= LONGEST_TIMEOUT;
  return isFine ? "" : "'" + text + "' is not a number of seconds from 0 to 1000000";
}

std::string CheckSpeed(const std::string& text) {
  double speed = 0;
  const bool isFine = Parse(text, speed) && speed > 0 && speed <= HIGHEST_SPEED;
  return isFine ? "" : "'" + text + "' is not a number above 0, up to 1000000";
}

std::string CheckCount(const std::string& text) {
  // A leading zero would be read as octal.
  std::uint64_t count = 0;
  const bool isFine = Parse(text, count) && text.front() != '0';
  return isFine ? "" : "'" + text + "' is not a number from 1";
}

}  // namespace

void AddTimeout(CLI::App& verb, std::optional<double>& seconds, const char* description) {
  verb.add_option("--timeout", seconds, description)->type_name("SECONDS")->check(CheckSeconds);
}

CLI::Option& AddSpeed(CLI::App& verb, double& speed) {
  return *verb.add_option("--speed", speed, "That many times as fast")
              ->type_name("N")
              ->check(CheckSpeed);
}

void AddLimits(CLI::App& verb, Limits& limits) {
  verb.add_option("-n,--count", limits.count, "End after that many")
      ->type_name("COUNT")
      ->check(CheckCount);
  AddTimeout(verb, limits.seconds);
}

}  // namespace ondaro::ctl
