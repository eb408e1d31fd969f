/**
 * The set's content decryption module. C++, because its users derive from its classes.
 *
 * Contract (each clause is checked against a port by the conformance kit):
 *
 * CDM-01  isKeySystemSupported() returns 11 for a key system that is supported, another number
 *         for one that is not.
 * CDM-02  create() returns a new instance, or null on failure; a key system that is not supported
 *         is a failure.
 * CDM-03  destroy() returns 0 on success and releases the instance.
 * CDM-04  getStringProperty() returns 0 on success with `result` filled.
 * CDM-05  getStringProperty() with query "getSystemId" and parameter " " gives the system
 *         identifier, the same for every instance on the set.
 * CDM-06  An instance that can generate keys also implements IWVCDM; dynamic_cast finds it.
 * CDM-07  generateDeviceKeyAndCert() returns 0 on success with both strings filled.
 * CDM-08  ondaroSign() returns 0 on success with `sign` filled with a signature of `hash`.
 * CDM-09  A failing operation returns non-zero and throws nothing.
 * CDM-10  The listener may be called, on any thread, between create() and the end of destroy(),
 *         and at no other time.
 * CDM-11  Every function may be called from any thread.
 * CDM-12  The module defines IEventListener::onHostNetwork(), with an empty body.
 */
#ifndef ONDARO_PLATFORM_CONTENT_DECRYPTION_MODULE_H
#define ONDARO_PLATFORM_CONTENT_DECRYPTION_MODULE_H

#include <string>

class ICDI {
 public:
  virtual ~ICDI() = default;
  virtual int getStringProperty(const std::string& query, const std::string& parameter,
                                std::string& result, const std::string& option) = 0;
};

class IWVCDM {
 public:
  virtual ~IWVCDM() = default;
  virtual int generateDeviceKeyAndCert(std::string& key, std::string& cert) = 0;
  virtual int ondaroSign(const std::string& key, const std::string& hash, std::string& sign) = 0;
};

namespace eme {

enum MessageType {
  kLicenseRequest = 0,
  kLicenseRenewal = 1,
  kLicenseRelease = 2,
  kIndividualizationRequest = 3,
};

enum CDM_MODEL {
  CDM_MODEL_DEFAULT = 0,
  CDM_MODEL_ONDARO = 1,  // the model the library asks for
};

class IEventListener {
 public:
  virtual ~IEventListener() = default;
  virtual void onMessage(const std::string& session, const MessageType& type,
                         const std::string& message) = 0;
  virtual void onKeyStatusesChange(const std::string& session) = 0;
  virtual void onRemoveComplete(const std::string& session) = 0;
  // Defined by the module, with an empty body; it is the class's key function.
  virtual void onHostNetwork(const std::string& session);
};

class IEME : public ICDI {
 public:
  static int isKeySystemSupported(const std::string& keySystem);
  static IEME* create(IEventListener* listener, const std::string& keySystem, bool secure,
                      CDM_MODEL model);
  static int destroy(IEME* instance);
};

}  // namespace eme

#endif
