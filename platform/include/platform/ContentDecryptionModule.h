/**
 * @file
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

/** What any module answers. */
class ICDI {
 public:
  virtual ~ICDI() = default;

  /**
   * Asks for a text.
   *
   * @param query      what is asked for: "getSystemId" for the system identifier
   * @param parameter  of the query; " " for the system identifier
   * @param result     receives the text
   * @param option     of the query; empty here
   * @return 0 on success
   */
  virtual int getStringProperty(const std::string& query, const std::string& parameter,
                                std::string& result, const std::string& option) = 0;
};

/** What a module does that has device keys; an instance that can is one of these, too. */
class IWVCDM {
 public:
  virtual ~IWVCDM() = default;

  /**
   * Generates a device key and its certificate.
   *
   * @param key   receives the key
   * @param cert  receives the certificate
   * @return 0 on success
   */
  virtual int generateDeviceKeyAndCert(std::string& key, std::string& cert) = 0;

  /**
   * Signs with a device key.
   *
   * @param key   the key as generated
   * @param hash  the hash to sign
   * @param sign  receives the signature
   * @return 0 on success
   */
  virtual int ondaroSign(const std::string& key, const std::string& hash, std::string& sign) = 0;
};

namespace eme {

/** What a module's message is about. */
enum MessageType {
  kLicenseRequest = 0,            ///< a license is asked for
  kLicenseRenewal = 1,            ///< one is to be renewed
  kLicenseRelease = 2,            ///< one is given back
  kIndividualizationRequest = 3,  ///< the module asks for its own
};

/** Which kind of instance is wanted. */
enum CDM_MODEL {
  CDM_MODEL_DEFAULT = 0,  ///< any
  CDM_MODEL_ONDARO = 1,   ///< the model the library asks for
};

/** Told by a module what happens to its sessions. */
class IEventListener {
 public:
  virtual ~IEventListener() = default;

  /**
   * A message for the license server.
   *
   * @param session  of which session
   * @param type     what it is about
   * @param message  its bytes
   */
  virtual void onMessage(const std::string& session, const MessageType& type,
                         const std::string& message) = 0;

  /**
   * The state of a session's keys changed.
   *
   * @param session  which
   */
  virtual void onKeyStatusesChange(const std::string& session) = 0;

  /**
   * A session is removed.
   *
   * @param session  which
   */
  virtual void onRemoveComplete(const std::string& session) = 0;
  /**
   * Defined by the module, with an empty body; it is the class's key function.
   *
   * @param session  unused
   */
  virtual void onHostNetwork(const std::string& session);
};

/** An instance of the module. */
class IEME : public ICDI {
 public:
  /**
   * Whether the set has a key system.
   *
   * @param keySystem  its name
   * @return 11 when it has, another number when not
   */
  static int isKeySystemSupported(const std::string& keySystem);

  /**
   * Makes an instance.
   *
   * @param listener   told of its sessions until it is destroyed; not owned
   * @param keySystem  the key system's name
   * @param secure     whether it is to work in the set's secure world
   * @param model      which kind
   * @return the instance, to be released with destroy(); null on failure
   */
  static IEME* create(IEventListener* listener, const std::string& keySystem, bool secure,
                      CDM_MODEL model);

  /**
   * Releases an instance.
   *
   * @param instance  as made by create()
   * @return 0 on success
   */
  static int destroy(IEME* instance);
};

}  // namespace eme

#endif
