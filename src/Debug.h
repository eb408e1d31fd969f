#ifndef ONDARO_SRC_DEBUG_H
#define ONDARO_SRC_DEBUG_H

#include "LogStatement.h"

/// Statements of the sources that log under the exported layer's tag.
#define ONDARO_API_TAG "ONDARO_API"
#define API_LOG_INFO(...) ONDARO_LOG(::ondaro::log::PRIORITY_INFO, ONDARO_API_TAG, __VA_ARGS__)
#define API_LOG_ERROR(...) ONDARO_LOG(::ondaro::log::PRIORITY_ERROR, ONDARO_API_TAG, __VA_ARGS__)
#define API_LOG_ERROR_AT(site, ...) \
  ONDARO_LOG_AT(site, ::ondaro::log::PRIORITY_ERROR, ONDARO_API_TAG, __VA_ARGS__)

/// Logs why the function that holds it gives up; the return is the function's own.
#define API_LOG_RETURN_GUARD(reason) API_LOG_ERROR("return by [%s]", reason)

/// Logs entry into and exit from the function that declares it first, on every way out.
/// The file, function and line of its messages are its own; the signature text names the function.
class ONDARO_API_CALL_TRACER {
 public:
  /// `signature` has static storage: __PRETTY_FUNCTION__ of the traced function.
  explicit ONDARO_API_CALL_TRACER(const char* signature) noexcept : m_signature(signature) {
    API_LOG_INFO("[%s]Entered ", m_signature);
  }
  ~ONDARO_API_CALL_TRACER() { API_LOG_INFO("[%s]Left", m_signature); }

  ONDARO_API_CALL_TRACER(const ONDARO_API_CALL_TRACER&) = delete;
  ONDARO_API_CALL_TRACER& operator=(const ONDARO_API_CALL_TRACER&) = delete;

 private:
  const char* m_signature;
};

#endif
