#include "ondaro/pal/CPALUtils.h"
#include "properties/Properties.h"
#include "support/Verbs.h"

namespace ondaro::ctl {
namespace {

using NOndaroPAL::CPALUtils;

std::optional<std::string> Ask(bool (*read)(std::string&)) {
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
    Json::Value object = JsonObject({{"product_year", JsonOrNull(year)},
                                     {"model_id", JsonOrNull(model)},
                                     {"init_reset", isReset},
                                     {"power_usable", isUsable}});
    if (directory) {
      object["state_directory"] = JsonOrNull(directory);
    }
    output.Result(object, {});
    return;
  }
  output.Line({{}, "product year  ", year.value_or("(unknown)")});
  output.Line({{}, "model id      ", model.value_or("(unknown)")});
  output.Line({{}, "init reset    ", isReset ? "yes" : "no"});
  output.Line({{}, "power usable  ", isUsable ? "yes" : "no"});
  if (directory) {
    output.Line({{}, "state in      ", *directory});
  }
}

}  // namespace

void AddDeviceVerbs(CLI::App& app, Session& session) {
  AddVerb(app, session, "device", "Print what the set says about itself", Device);
}

}  // namespace ondaro::ctl
