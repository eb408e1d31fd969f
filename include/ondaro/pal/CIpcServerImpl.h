#ifndef ONDARO_PAL_CIPCSERVERIMPL_H
#define ONDARO_PAL_CIPCSERVERIMPL_H

#include <gio/gio.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <string>

#include "ondaro/Export.h"
#include "ondaro/api/IIpcServerImpl.h"

namespace NOndaroPAL {

/**
 * The daemon's end on the system bus: owns the well-known name, answers the one method, emits the
 * signal.
 *
 * The bus handlers run in the thread-default main context of the thread that constructs the
 * object. Nothing is locked: the three operations belong on the thread that iterates it.
 */
class ONDARO_EXPORT CIpcServerImpl : public NOndaroAPI::IIpcServerImpl {
 public:
  /** Requests the name. Throws CInvalidCaseException without a usable interface description. */
  CIpcServerImpl();
  ~CIpcServerImpl() override;

  void RegisterEventHandler(const std::string& appEvt,
                            const NOndaroAPI::IpcEventHandler& handler) override;
  void UnregisterEventHandler() override;

  void SendDataToClient(const std::string& appEvt, const std::string& data) override;

  /**
   * Entered by GLib, as are the next three; nothing thrown passes back into it.
   * The bus was reached: registers the object there.
   *
   * @param pDbusConnection  the bus
   * @param name             the well-known name
   * @param user_data        the object
   */
  static void BusAcquiredCallback(GDBusConnection* pDbusConnection, const gchar* name,
                                  gpointer user_data);

  /**
   * The name is owned: events can be sent.
   *
   * @param pDbusConnection  the bus
   * @param name             the well-known name
   * @param user_data        the object
   */
  static void BusNameAcquiredCallback(GDBusConnection* pDbusConnection, const gchar* name,
                                      gpointer user_data);

  /**
   * The name is not owned, or no more.
   *
   * @param pDbusConnection  the bus; null when it was lost
   * @param name             the well-known name
   * @param user_data        the object
   */
  static void BusNameLostCallback(GDBusConnection* pDbusConnection, const gchar* name,
                                  gpointer user_data);

  /**
   * An application called.
   *
   * @param connection      the bus
   * @param sender          the caller's unique name
   * @param object_path     of the object called
   * @param interface_name  of the method
   * @param method_name     the method
   * @param parameters      event name and data
   * @param invocation      the call to be answered
   * @param user_data       the object
   */
  static void BusInterfaceMethodCallback(GDBusConnection* connection, const gchar* sender,
                                         const gchar* object_path, const gchar* interface_name,
                                         const gchar* method_name, GVariant* parameters,
                                         GDBusMethodInvocation* invocation, gpointer user_data);

  /**
   * Dispatches one event and answers the call.
   *
   * @param parameters  event name and data
   * @param invocation  the call to be answered
   * @param user_data   the object
   */
  void HandleAppData(GVariant* parameters, GDBusMethodInvocation* invocation, gpointer user_data);

 private:
  std::map<std::string, NOndaroAPI::IpcEventHandler, std::less<>> m_eventHandlerMap;
  GDBusNodeInfo* m_pBusNodeInfo = nullptr;       // owned
  GDBusConnection* m_pDbusConnection = nullptr;  // not owned; set while the name is owned
  guint m_nOwnerId = 0;
  guint m_nRegistrationId = 0;
  GDBusConnection* m_pObjectConnection = nullptr;  // where the object was registered
  pid_t m_nOwnPid;  // of the process that made it; a forked child has no use of the connection
  bool m_isConnectionHeld =
      false;  // one reference to m_pObjectConnection; without, only its address
};

}  // namespace NOndaroPAL

#endif
