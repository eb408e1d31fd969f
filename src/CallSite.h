#ifndef ONDARO_SRC_CALLSITE_H
#define ONDARO_SRC_CALLSITE_H

/// Where a function stands. Captured in the function itself and handed to what works for it, so
/// that the log names the function and not its helper.
struct SCallSite {
  const char* file;
  const char* function;
  const char* signature;
  int line;
};

#define ONDARO_CALL_SITE \
  SCallSite { __FILE_NAME__, __func__, __PRETTY_FUNCTION__, __LINE__ }

#endif
