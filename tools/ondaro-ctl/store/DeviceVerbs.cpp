#include "ondaro/pal/CPALUtils.h"
#include "properties/Properties.h"
#include "support/Verbs.h"

namespace ondaro::ctl {
namespace {

using NOndaroPAL::CPALUtils;

using TextReader = bool (*)(std::string&);

void PrintText(const Output& output, const char* label, const std::optional<std::string>& value) {
  output.Line({{}, label, value ? *value : "(unknown)"});
}

std::optional<std::string> Ask(TextReader read) {
  std::string value;
  return read(value) ? std::optional(value) : std::nullopt;
}

void Device(const Output& output, const NoOptions&) {
  const std::optional<std::string> year = Ask(CPALUtils::GetProductYear);
  const std::optional<std::string> model = Ask(CPALUtils::GetModelId);
  const std::optional<std::string> directory = StateDirectory();
  const bool isReset = CPALUtils::IsOndaroInitReset();
  const bool isUsable = CPALUtils::IsValidPowerState();
  if (output.IsJson()) {
    Json::Value object;
    object["product_year"] = year ? JsonText(*year) : Json::Value();
    object["model_id"] = model ? JsonText(*model) : Json::Value();
    object["init_reset"] = isReset;
    object["power_usable"] = isUsable;
    if (directory) {
      object["state_directory"] = JsonText(*directory);
    }
    output.Result(object, {});
    return;
  }
  PrintText(output, "product year  ", year);
  PrintText(output, "model id      ", model);
  PrintText(output, "init reset    ", isReset ? "yes" : "no");
  PrintText(output, "power usable  ", isUsable ? "yes" : "no");
  if (directory) {
    PrintText(output, "state in      ", directory);
  }
}

}  // namespace

void AddDeviceVerbs(CLI::App& app, Session& session) {
  CLI::App& device = *app.add_subcommand("device", "Print what the set says about itself");
  OnVerb(device, session, std::make_shared<NoOptions>(), Device);
}

}  // namespace ondaro::ctl
