#include "CallbackFunnel.h"

#include <cxxabi.h>

#include <exception>

#include "OndaroPALDebug.h"

// The end of a thread has no object that the reference of its handler could be bound to.
__attribute__((no_sanitize("null"))) void LogCaught(const SCallSite& site) {
  try {
    throw;
  } catch (const std::exception& exception) {
    PAL_LOG_ERROR_AT(site, "exception : %s", exception.what());
  } catch (const abi::__forced_unwind&) {
    PAL_LOG_ERROR_AT(site, "the thread ends in [%s]", site.signature);
    throw;
  } catch (...) {
    PAL_LOG_ERROR_AT(site, "exception : %s", "of unknown type");
  }
}
