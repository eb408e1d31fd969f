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
  /** Takes ownership of `impl`, which is not tested for null. */
  explicit CSystemConfig(ISystemConfigImpl* impl);
  ~CSystemConfig();

  CSystemConfig(const CSystemConfig&) = delete;
  CSystemConfig& operator=(const CSystemConfig&) = delete;

  std::string GetProperty(const std::string& key) const;
  bool SetProperty(const std::string& key, const std::string& val) const;
  void RegisterEventHandler(const std::string& key, const PropertyEventHandler& handler);
  void UnregisterEventHandler(const std::string& key);

 private:
  std::unique_ptr<ISystemConfigImpl> m_pImpl;
};

}  // namespace NOndaroAPI

#endif
