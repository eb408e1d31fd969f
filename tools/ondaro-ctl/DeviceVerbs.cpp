#include "Text.h"
#include "Verbs.h"
#include "ondaro/pal/CPALUtils.h"

namespace ondaro::ctl {
namespace {

using NOndaroPAL::CPALUtils;

struct NoOptions {};

using TextReader = bool (*)(std::string&);

void PrintText(const Output& output, const char* label, const std::optional<std::string>& value) {
  output.Line(output.Emphasis(label) + (value ? OneLine(*value) : "(unknown)"));
}

std::optional<std::string> Ask(TextReader read) {
  std::string value;
  return read(value) ? std::optional(value) : std::nullopt;
}

void Device(const Output& output, const NoOptions&) {
  const std::optional<std::string> year = Ask(CPALUtils::GetProductYear);
  const std::optional<std::string> model = Ask(CPALUtils::GetModelId);
  const bool isReset = CPALUtils::IsOndaroInitReset();
  const bool isUsable = CPALUtils::IsValidPowerState();
  if (output.IsJson()) {
    Json::Value object;
    object["product_year"] = year ? JsonText(*year) : Json::Value();
    object["model_id"] = model ? JsonText(*model) : Json::Value();
    object["init_reset"] = isReset;
    object["power_usable"] = isUsable;
    output.Result("", object);
    return;
  }
  PrintText(output, "product year  ", year);
  PrintText(output, "model id      ", model);
  PrintText(output, "init reset    ", isReset ? "yes" : "no");
  PrintText(output, "power usable  ", isUsable ? "yes" : "no");
}

}  // namespace

void AddDeviceVerbs(CLI::App& app, Session& session) {
  CLI::App& device = *app.add_subcommand("device", "Print what the set says about itself");
  OnVerb(device, session, std::make_shared<NoOptions>(), Device);
}

}  // namespace ondaro::ctl
