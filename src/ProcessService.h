#ifndef ONDARO_SRC_PROCESSSERVICE_H
#define ONDARO_SRC_PROCESSSERVICE_H

#include <atomic>

#include "ondaro/pal/CException.h"

/// Set when the library's constants are about to go: no service begins any more.
inline std::atomic<bool> g_isLibraryOver{false};

/// The service object of a family, from its first use to the exit of the process. What the host
/// process calls after that, from a handler of its exit, finds out here that it is gone.
template <typename TWrapper>
class CProcessService {
 public:
  /// Throws CInvalidCaseException after the end, and what `create` throws.
  template <typename TImplementation>
  static TWrapper& Get(TImplementation* (*create)()) {
    if (g_isLibraryOver || s_pEnded != nullptr) {
      throw NOndaroPAL::CInvalidCaseException("the service ended with the process");
    }
    static CProcessService service(create());
    return service.m_wrapper;
  }
  static bool HasEnded(const void* pWrapper) noexcept { return s_pEnded == pWrapper; }

  ~CProcessService() { s_pEnded = &m_wrapper; }
  CProcessService(const CProcessService&) = delete;
  CProcessService& operator=(const CProcessService&) = delete;

 private:
  template <typename TImplementation>
  explicit CProcessService(TImplementation* pImplementation) : m_wrapper(pImplementation) {}

  TWrapper m_wrapper;
  static inline std::atomic<const void*> s_pEnded{nullptr};
};

#endif
