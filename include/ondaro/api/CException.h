#ifndef ONDARO_API_CEXCEPTION_H
#define ONDARO_API_CEXCEPTION_H

#include <exception>
#include <string>

#include "ondaro/Export.h"

namespace NOndaroAPI {

/** Base of the exported layer's exceptions. what() is the origin followed directly by the message.
 */
class ONDARO_EXPORT CException : public std::exception {
 public:
  /**
   * @param origin   where it comes from
   * @param message  what it says
   */
  CException(const std::string& origin, const std::string& message);
  ~CException() override;

  /** @return the origin followed directly by the message */
  const char* what() const noexcept override;

  /** @return the origin */
  const std::string& GetOrigin() const noexcept { return m_origin; }

  /** @return the message */
  const std::string& GetMessage() const noexcept { return m_message; }

 private:
  std::string m_origin;
  std::string m_message;
  std::string m_what;
};

/** A misuse of an exported function that the function itself detects. */
class ONDARO_EXPORT CAPIException : public CException {
 public:
  /**
   * @param origin   where it comes from
   * @param message  what it says
   */
  CAPIException(const std::string& origin, const std::string& message);
  ~CAPIException() override;
};

}  // namespace NOndaroAPI

#endif
