#ifndef ONDARO_API_ICOREAUTHIMPL_H
#define ONDARO_API_ICOREAUTHIMPL_H

#include <boost/noncopyable.hpp>
#include <string>

#include "ondaro/Export.h"

struct OndaroApi_CoreAuthInfoRW;

namespace NOndaroAPI {

/**
 * What device authentication needs of a platform. Every operation is true on success; after a
 * failure its strings hold whatever the decryption module left in them. Nothing is locked.
 */
class ONDARO_EXPORT ICoreAuthImpl : private boost::noncopyable {
 public:
  virtual ~ICoreAuthImpl();

  /** Fills `key` and `cert`; on success neither is empty. */
  virtual bool GenerateDeviceKeyAndCert(std::string& key, std::string& cert) = 0;

  /** Signs `hash` with `key`; on success `sign` is not empty. */
  virtual bool SignHash(const std::string& key, const std::string& hash, std::string& sign) = 0;

  /** Leaves the record as it is. */
  virtual bool GetModelCertChain(OndaroApi_CoreAuthInfoRW* certChain) = 0;

  /** Fills `systemId` with the DRM system identifier, unchanged; it may be empty. */
  virtual bool GetSystemID(std::string& systemId) = 0;
};

}  // namespace NOndaroAPI

#endif
