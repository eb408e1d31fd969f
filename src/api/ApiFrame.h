#ifndef ONDARO_SRC_APIFRAME_H
#define ONDARO_SRC_APIFRAME_H

#include <initializer_list>

#include "CallSite.h"
#include "ProcessService.h"

/// What every exported function has in common: required pointers, the guarded body and the
/// handlers that turn an exception into a log line. The function's result is a local variable
/// that holds the failure value until the body has succeeded.
namespace ApiFrame {

struct SRequired {
  const char* name;
  const void* pointer;
};

/// Raised by WrapperOf for a handle that cannot be used. No std::exception: it is the caller's
/// fault, not a failure of the body, and has a log line of its own.
struct SBrokenPrecondition {
  const char* name;
  const char* fault;
};

/// Results of the functions that return int.
constexpr int CALL_SUCCEEDED = 0;
constexpr int CALL_FAILED = -1;

enum class EHandlers { BOTH, STANDARD_ONLY };

/// True when no pointer is null; otherwise logs the name of the first that is.
bool AllGiven(const SCallSite& site, std::initializer_list<SRequired> required) noexcept;

/// Calls `body` with `captured` when no pointer is null. Exceptions of other types than the
/// handlers' pass through to the caller, and so does the end of the thread.
void Run(const SCallSite& site, std::initializer_list<SRequired> required, EHandlers handlers,
         void (*body)(const void* captured), const void* captured);

template <typename TWrapper, typename THandle>
TWrapper& WrapperOf(THandle handle) {
  if (handle == nullptr) {
    throw SBrokenPrecondition{"handle", "is null"};
  }
  if (CProcessService<TWrapper>::HasEnded(handle)) {
    throw SBrokenPrecondition{"handle", "ended with its service"};
  }
  return *reinterpret_cast<TWrapper*>(handle);
}

template <EHandlers handlers = EHandlers::BOTH, typename TBody>
void Guard(const SCallSite& site, std::initializer_list<SRequired> required, const TBody& body) {
  const auto call = [](const void* captured) { (*static_cast<const TBody*>(captured))(); };
  Run(site, required, handlers, call, &body);
}

}  // namespace ApiFrame

#endif
