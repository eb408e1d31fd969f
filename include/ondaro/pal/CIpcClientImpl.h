#ifndef ONDARO_PAL_CIPCCLIENTIMPL_H
#define ONDARO_PAL_CIPCCLIENTIMPL_H

#include <gio/gio.h>
#include <sys/types.h>

#include <map>
#include <string>

#include "ondaro/Export.h"
#include "ondaro/api/IIpcClientImpl.h"

namespace NOndaroPAL {

/**
 * The application's end on the system bus: calls the daemon's method and listens to its signal.
 *
 * Signals arrive in the thread-default main context of the thread that registered a handler
 * while there was none, completions of calls in that of the thread that sent. GLib's proxy queues
 * each signal in that of the thread that made the object as well: it is to be iterated too. Nothing
 * is locked: registration belongs on the thread that iterates the signals' context.
 */
class ONDARO_EXPORT CIpcClientImpl : public NOndaroAPI::IIpcClientImpl {
 public:
  /** Throws CInvalidCaseException when the bus cannot be reached. */
  CIpcClientImpl();
  /** Waits until the bus has what was sent, for half a second at most. */
  ~CIpcClientImpl() override;

  void RegisterEventHandler(const std::string& appEvt,
                            const NOndaroAPI::IpcEventHandler& handler) override;
  void UnregisterEventHandler() override;

  void SendDataToServer(const std::string& appEvt, const std::string& data) override;

 private:
  static void _DbusSignalCallback(GDBusConnection* connection, const gchar* sender_name,
                                  const gchar* object_path, const gchar* interface_name,
                                  const gchar* signal_name, GVariant* parameters,
                                  gpointer user_data);
  static void _SendDataToServerAyncResultCallback(GDBusProxy* proxy, GAsyncResult* res,
                                                  gpointer user_data);
  void _CallDbusClientCallback(const std::string& appEvt, const std::string& data);

  std::map<std::string, NOndaroAPI::IpcEventHandler> m_eventHandlerMap;
  GDBusConnection* m_pGDBusConnection = nullptr;  // owned, one reference
  GDBusProxy* m_pGDBusProxy = nullptr;            // owned
  guint m_nSubscriptionId = 0;                    // the one subscription; 0 without
  pid_t m_nOwnPid;  // of the process that made it; a forked child has no use of the connection
};

}  // namespace NOndaroPAL

#endif
