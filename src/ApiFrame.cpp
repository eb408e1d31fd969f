#include "ApiFrame.h"

#include "Debug.h"

namespace ApiFrame {

bool AllGiven(const SCallSite& site, std::initializer_list<SRequired> required) noexcept {
  for (const SRequired& argument : required) {
    if (argument.pointer == nullptr) {
      LogBrokenPrecondition(site, argument.name);
      return false;
    }
  }
  return true;
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
