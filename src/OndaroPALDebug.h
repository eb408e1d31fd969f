#ifndef ONDARO_SRC_ONDAROPALDEBUG_H
#define ONDARO_SRC_ONDAROPALDEBUG_H

#include "LogStatement.h"

/// Statements of the sources that log under the platform layer's tag.
#define ONDARO_PAL_TAG "ONDARO_PAL"
#define PAL_LOG_DEBUG(...) ONDARO_LOG(::ondaro::log::PRIORITY_DEBUG, ONDARO_PAL_TAG, __VA_ARGS__)
#define PAL_LOG_INFO(...) ONDARO_LOG(::ondaro::log::PRIORITY_INFO, ONDARO_PAL_TAG, __VA_ARGS__)
#define PAL_LOG_ERROR(...) ONDARO_LOG(::ondaro::log::PRIORITY_ERROR, ONDARO_PAL_TAG, __VA_ARGS__)

#define PAL_LOG_ERROR_AT(site, ...) \
  ONDARO_LOG_AT(site, ::ondaro::log::PRIORITY_ERROR, ONDARO_PAL_TAG, __VA_ARGS__)

/// Logs entry into and exit from the function that declares it first, on every way out.
/// `signature` has static storage: __PRETTY_FUNCTION__ of the traced function.
class ONDAROCALLTRACE {
 public:
  explicit ONDAROCALLTRACE(const char* signature) noexcept : m_signature(signature) {
    PAL_LOG_INFO("[%s]Entered ", m_signature);
  }
  ~ONDAROCALLTRACE() { PAL_LOG_INFO("[%s]Left", m_signature); }

  ONDAROCALLTRACE(const ONDAROCALLTRACE&) = delete;
  ONDAROCALLTRACE& operator=(const ONDAROCALLTRACE&) = delete;

 private:
  const char* m_signature;
};

/// The same at error priority, for functions whose use is to be seen in every log.
class ONDAROCALLTRACE_ERROR {
 public:
  explicit ONDAROCALLTRACE_ERROR(const char* signature) noexcept : m_signature(signature) {
    PAL_LOG_ERROR("[%s]Entered ", m_signature);
  }
  ~ONDAROCALLTRACE_ERROR() { PAL_LOG_ERROR("[%s]Left", m_signature); }

  ONDAROCALLTRACE_ERROR(const ONDAROCALLTRACE_ERROR&) = delete;
  ONDAROCALLTRACE_ERROR& operator=(const ONDAROCALLTRACE_ERROR&) = delete;

 private:
  const char* m_signature;
};

#endif
