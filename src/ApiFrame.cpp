#include "ApiFrame.h"

#include <algorithm>

#include "Debug.h"

namespace ApiFrame {

bool AllGiven(const SCallSite& site, std::initializer_list<SRequired> required) noexcept {
  const auto* const missing =
      std::find_if(required.begin(), required.end(),
                   [](const SRequired& argument) { return argument.pointer == nullptr; });
  if (missing == required.end()) {
    return true;
  }
  LogBrokenPrecondition(site, missing->name);
  return false;
}

void LogBrokenPrecondition(const SCallSite& site, const char* name) noexcept {
  API_LOG_ERROR_AT(site, "%s is null in [%s]", name, site.signature);
}

void LogException(const SCallSite& site, const NOndaroAPI::CException& exception) noexcept {
  API_LOG_ERROR_AT(site, "exception : %s(%s/%s)", exception.what(), exception.GetOrigin().c_str(),
                   exception.GetMessage().c_str());
}

void LogException(const SCallSite& site, const std::exception& exception) noexcept {
  API_LOG_ERROR_AT(site, "exception : %s", exception.what());
}

}  // namespace ApiFrame
