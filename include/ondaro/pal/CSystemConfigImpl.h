#ifndef ONDARO_PAL_CSYSTEMCONFIGIMPL_H
#define ONDARO_PAL_CSYSTEMCONFIGIMPL_H

#include <map>
#include <string>

#include "ondaro/Export.h"
#include "ondaro/api/ISystemConfigImpl.h"
#include "platform/SettingsStore.h"

struct SCallSite;

namespace NOndaroPAL {

/**
 * The set's properties over the settings store.
 *
 * Reads and writes may run at the same time. Registration and the settings store's delivery
 * change the handler table and the cached values without a lock: keep them on one thread.
 *
 * One object a process: the store knows a subscription by its key and callback, which all objects
 * share. The destructor leaves subscriptions as they are; changes that are told of later do
 * nothing.
 */
class ONDARO_EXPORT CSystemConfigImpl : public NOndaroAPI::ISystemConfigImpl {
 public:
  CSystemConfigImpl();
  ~CSystemConfigImpl() override;

  std::string GetProperty(const std::string& key) const override;
  bool SetProperty(const std::string& key, const std::string& val) override;
  void RegisterEventHandler(const std::string& key,
                            const NOndaroAPI::PropertyEventHandler& handler) override;
  void UnregisterEventHandler(const std::string& key) override;

  /**
   * Entered by the settings store, one for each property with events. Reads the new value from the
   * node and calls the property's handler; nothing thrown passes back into the store.
   *
   * @param pKeyNode   the change
   * @param pUserData  the object
   */
  ///@{
  static void OndaroSupportChangedCallback(platform_settings_node* pKeyNode, void* pUserData);
  static void OndaroEnrollmentChangedCallback(platform_settings_node* pKeyNode, void* pUserData);
  static void OndaroStatusChangedCallback(platform_settings_node* pKeyNode, void* pUserData);
  static void OndaroToSStatusChangedCallback(platform_settings_node* pKeyNode, void* pUserData);
  static void OndaroClearDataChangedCallback(platform_settings_node* pKeyNode, void* pUserData);
  static void OndaroEnableUsageRptChangedCallback(platform_settings_node* pKeyNode,
                                                  void* pUserData);
  static void OndaroWidevineOndaroVersionChangedCallback(platform_settings_node* pKeyNode,
                                                         void* pUserData);
  static void OndaroWidevineOndaroSupportChangedCallback(platform_settings_node* pKeyNode,
                                                         void* pUserData);
  ///@}

 private:
  // The signature texts in the log name these types unqualified, since they are the class's own.
  typedef std::map<std::string, NOndaroAPI::PropertyEventHandler> EventHandlerMap_t;
  typedef std::map<std::string, std::string> PropertyMap_t;
  typedef std::map<std::string, std::string (*)(const std::string& data)> GetFunctionMap_t;
  typedef std::map<std::string, bool (*)(const std::string& val)> SetFunctionMap_t;
  typedef std::map<std::string, void (*)(bool subscribe, void* pUserData)> CbManagerMap_t;

  std::string _GetProperty(const std::string& mixedKey) const;
  bool _SetProperty(const std::string& key, const std::string& val) const;
  std::string _ExtractKeyFromMixedKey(const std::string& mixedKey) const;
  std::string _ExtractDataFromMixedKey(const std::string& mixedKey) const;

  void _InitGetFunctionMap(GetFunctionMap_t& getFunctionMap);
  void _InitSetFunctionMap(SetFunctionMap_t& setFunctionMap);
  void _InitCbManagerMap(CbManagerMap_t& cbManagerMap);
  void _PrintPropertyMap() const;

  static void _ManageOndaroEnrollmentCb(bool subscribe, void* pUserData);
  static void _ManageOndaroStatusCb(bool subscribe, void* pUserData);
  static void _ManageOndaroWidevineOndaroVersion(bool subscribe, void* pUserData);
  static void _ManageOndaroWidevineOndaroSupportCb(bool subscribe, void* pUserData);

  static void _DeliverString(const SCallSite& site, platform_settings_node* pKeyNode,
                             void* pUserData, const std::string& name,
                             std::string CSystemConfigImpl::*pCache);
  static void _DeliverInteger(const SCallSite& site, platform_settings_node* pKeyNode,
                              void* pUserData, const std::string& name,
                              std::string (*pToText)(int));
  void _CallEventHandler(const std::string& name, const std::string& data) const;

  EventHandlerMap_t m_eventHandlerMap;
  PropertyMap_t m_propertyMap;
  GetFunctionMap_t m_getFunctionMap;
  SetFunctionMap_t m_setFunctionMap;
  CbManagerMap_t m_cbManagerMap;
  // The last known value of each key whose events are filtered.
  std::string m_strOndaroStatus;
  std::string m_strOndaroEnrollment;
  std::string m_strWidevineOndaroVersion;
  std::string m_strWidevineOndaroSupport;
};

}  // namespace NOndaroPAL

#endif
