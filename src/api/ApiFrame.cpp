#include "api/ApiFrame.h"

#include <cxxabi.h>

#include <algorithm>
#include <exception>

#include "Debug.h"
#include "ondaro/api/CException.h"

namespace ApiFrame {

namespace {

void _LogBrokenPrecondition(const SCallSite& site, const SBrokenPrecondition& broken) noexcept {
  API_LOG_ERROR_AT(site, "%s %s in [%s]", broken.name, broken.fault, site.signature);
}

}  // namespace

bool AllGiven(const SCallSite& site, std::initializer_list<SRequired> required) noexcept {
  const auto* const missing =
      std::find_if(required.begin(), required.end(),
                   [](const SRequired& argument) { return argument.pointer == nullptr; });
  if (missing == required.end()) {
    return true;
  }
  _LogBrokenPrecondition(site, {missing->name, "is null"});
  return false;
}

// The end of a thread has no object that the reference of its handler could be bound to.
__attribute__((no_sanitize("null"))) void Run(const SCallSite& site,
                                              std::initializer_list<SRequired> required,
                                              EHandlers handlers,
                                              void (*body)(const void* captured),
                                              const void* captured) {
  if (!AllGiven(site, required)) {
    return;
  }
  try {
    body(captured);
  } catch (const SBrokenPrecondition& broken) {
    _LogBrokenPrecondition(site, broken);
  } catch (const std::exception& exception) {
    const auto* const own = dynamic_cast<const NOndaroAPI::CException*>(&exception);
    if (handlers == EHandlers::BOTH && own != nullptr) {
      API_LOG_ERROR_AT(site, "exception : %s(%s/%s)", own->what(), own->GetOrigin().c_str(),
                       own->GetMessage().c_str());
    } else {
      API_LOG_ERROR_AT(site, "exception : %s", exception.what());
    }
  } catch (const abi::__forced_unwind&) {
    API_LOG_ERROR_AT(site, "the thread ends in [%s]", site.signature);
    throw;
  }
}

}  // namespace ApiFrame
