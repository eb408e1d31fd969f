#include "ondaro/api/CException.h"

#include <utility>

#include "ondaro/pal/CException.h"

namespace NOndaroAPI {

CException::CException(const std::string& origin, const std::string& message)
    : m_origin(origin), m_message(message), m_what(origin + message) {}

CException::~CException() = default;

const char* CException::what() const noexcept { return m_what.c_str(); }

CAPIException::CAPIException(const std::string& origin, const std::string& message)
    : CException(origin, message) {}

CAPIException::~CAPIException() = default;

}  // namespace NOndaroAPI

namespace NOndaroPAL {

CException::CException(std::string message) : m_message(std::move(message)) {}

CException::~CException() = default;

const char* CException::what() const noexcept { return m_message.c_str(); }

CNullptrException::CNullptrException(const std::string& pointerName)
    : CException("PAL Exception: Nullptr: " + pointerName) {}

CNullptrException::~CNullptrException() = default;

CInvalidCaseException::CInvalidCaseException(const std::string& description)
    : CException("PAL Exception: InvalidCase: " + description) {}

CInvalidCaseException::~CInvalidCaseException() = default;

}  // namespace NOndaroPAL
