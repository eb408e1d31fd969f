#ifndef ONDARO_SRC_APIFRAME_H
#define ONDARO_SRC_APIFRAME_H

#include <exception>
#include <initializer_list>

#include "CallSite.h"
#include "ondaro/api/CException.h"

/// What every exported function has in common: required pointers, the guarded body and the
/// handlers that turn an exception into a log line. The function's result is a local variable
/// that holds the failure value until the body has succeeded.
namespace ApiFrame {

struct SRequired {
  const char* name;
  const void* pointer;
};

/// Raised by WrapperOf for a null handle. No std::exception: it is the caller's fault, not a
/// failure of the body, and has a log line of its own.
struct SBrokenPrecondition {
  const char* name;
};

/// Results of the functions that return int.
constexpr int CALL_SUCCEEDED = 0;
constexpr int CALL_FAILED = -1;

enum class EHandlers { BOTH, STANDARD_ONLY };

/// True when no pointer is null; otherwise logs the name of the first that is.
bool AllGiven(const SCallSite& site, std::initializer_list<SRequired> required) noexcept;

void LogBrokenPrecondition(const SCallSite& site, const char* name) noexcept;
void LogException(const SCallSite& site, const NOndaroAPI::CException& exception) noexcept;
void LogException(const SCallSite& site, const std::exception& exception) noexcept;

template <typename TWrapper, typename THandle>
TWrapper& WrapperOf(THandle handle) {
  if (handle == nullptr) {
    throw SBrokenPrecondition{"handle"};
  }
  return *reinterpret_cast<TWrapper*>(handle);
}

/// Exceptions of other types pass through to the caller.
template <EHandlers handlers = EHandlers::BOTH, typename TBody>
void Guard(const SCallSite& site, std::initializer_list<SRequired> required, const TBody& body) {
  if (!AllGiven(site, required)) {
    return;
  }
  try {
    body();
  } catch (const SBrokenPrecondition& broken) {
    LogBrokenPrecondition(site, broken.name);
  } catch (const NOndaroAPI::CException& exception) {
    if constexpr (handlers == EHandlers::BOTH) {
      LogException(site, exception);
    } else {
      LogException(site, static_cast<const std::exception&>(exception));
    }
  } catch (const std::exception& exception) {
    LogException(site, exception);
  }
}

}  // namespace ApiFrame

#endif
