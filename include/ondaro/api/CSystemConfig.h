#ifndef ONDARO_API_CSYSTEMCONFIG_H
#define ONDARO_API_CSYSTEMCONFIG_H

#include <memory>
#include <string>

#include "ondaro/Export.h"
#include "ondaro/api/ISystemConfigImpl.h"

namespace NOndaroAPI {

/** The property service, as the exported functions see it. Forwards. */
class ONDARO_EXPORT CSystemConfig {
 public:
  /**
   * Takes the implementation over.
   *
   * @param impl  deleted with this object; not tested for null
   */
  explicit CSystemConfig(ISystemConfigImpl* impl);
  ~CSystemConfig();

  CSystemConfig(const CSystemConfig&) = delete;
  CSystemConfig& operator=(const CSystemConfig&) = delete;

  /** @copydoc ISystemConfigImpl::GetProperty() */
  std::string GetProperty(const std::string& key) const;

  /** @copydoc ISystemConfigImpl::SetProperty() */
  bool SetProperty(const std::string& key, const std::string& val) const;

  /** @copydoc ISystemConfigImpl::RegisterEventHandler() */
  void RegisterEventHandler(const std::string& key, const PropertyEventHandler& handler);

  /** @copydoc ISystemConfigImpl::UnregisterEventHandler() */
  void UnregisterEventHandler(const std::string& key);

 private:
  std::unique_ptr<ISystemConfigImpl> m_pImpl;
};

}  // namespace NOndaroAPI

#endif
