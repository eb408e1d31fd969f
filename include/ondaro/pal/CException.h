#ifndef ONDARO_PAL_CEXCEPTION_H
#define ONDARO_PAL_CEXCEPTION_H

#include <exception>
#include <string>

#include "ondaro/Export.h"

namespace NOndaroPAL {

/** Base of the platform layer's exceptions. what() is the message given. */
class ONDARO_EXPORT CException : public std::exception {
 public:
  /** @param message  what it says */
  explicit CException(std::string message);
  ~CException() override;

  /** @return the message */
  const char* what() const noexcept override;

 private:
  std::string m_message;
};

/** A pointer was null; built from its name. */
class ONDARO_EXPORT CNullptrException : public CException {
 public:
  /** @param pointerName  the name of the pointer */
  explicit CNullptrException(const std::string& pointerName);
  ~CNullptrException() override;
};

/** An operation failed or was called in a state that does not allow it; built from its name. */
class ONDARO_EXPORT CInvalidCaseException : public CException {
 public:
  /** @param description  the operation, or what was wrong */
  explicit CInvalidCaseException(const std::string& description);
  ~CInvalidCaseException() override;
};

}  // namespace NOndaroPAL

#endif
