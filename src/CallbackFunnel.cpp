#include "CallbackFunnel.h"

#include <exception>

#include "OndaroPALDebug.h"

void LogCaught(const SCallSite& site) noexcept {
  try {
    throw;
  } catch (const std::exception& exception) {
    PAL_LOG_ERROR_AT(site, "exception : %s", exception.what());
  } catch (...) {
    PAL_LOG_ERROR_AT(site, "exception : %s", "of unknown type");
  }
}
