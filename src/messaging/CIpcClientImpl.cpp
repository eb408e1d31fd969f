#include "ondaro/pal/CIpcClientImpl.h"

#include <unistd.h>

#include "CallbackFunnel.h"
#include "LiveObjects.h"
#include "OndaroPALDebug.h"
#include "messaging/BusContract.h"
#include "messaging/GLibPtr.h"
#include "ondaro/pal/CException.h"

namespace NOndaroPAL {

namespace {

constexpr int DEFAULT_TIMEOUT = -1;  // milliseconds, as the next
constexpr int LAST_CALL_TIMEOUT = 500;

/// What was sent before is with the bus when it answers. Not for longer: it may stand still.
void _AwaitSent(GDBusConnection* pConnection) {
  constexpr const char* BUS = "org.freedesktop.DBus";
  const GLibPtr<GVariant> answer(g_dbus_connection_call_sync(
      pConnection, BUS, "/org/freedesktop/DBus", BUS, "GetId", nullptr, nullptr,
      G_DBUS_CALL_FLAGS_NONE, LAST_CALL_TIMEOUT, nullptr, nullptr));
}

}  // namespace

CIpcClientImpl::CIpcClientImpl() : m_nOwnPid(getpid()) {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  CGErrorOut error;
  GLibPtr<GDBusConnection> connection(g_bus_get_sync(BusContract::BUS_TYPE, nullptr, error.Out()));
  if (connection == nullptr) {
    throw CInvalidCaseException(std::string("g_bus_get_sync failed: ") + error.Message());
  }
  // GLib takes any use of a closed connection for a mistake of the program.
  if (g_dbus_connection_is_closed(connection.get()) != FALSE) {
    throw CInvalidCaseException("g_bus_get_sync failed: the connection is closed");
  }
  GLibPtr<GDBusProxy> proxy(g_dbus_proxy_new_sync(
      connection.get(), G_DBUS_PROXY_FLAGS_NONE, nullptr, BusContract::NAME,
      BusContract::OBJECT_PATH, BusContract::INTERFACE, nullptr, error.Out()));
  if (proxy == nullptr) {
    throw CInvalidCaseException(std::string("g_dbus_proxy_new_sync failed: ") + error.Message());
  }
  CLiveObjects<CIpcClientImpl>::Add(this);
  m_pGDBusConnection = connection.release();
  m_pGDBusProxy = proxy.release();
}

CIpcClientImpl::~CIpcClientImpl() {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  CLiveObjects<CIpcClientImpl>::Remove(this);
  // GLib's thread did not come along: a forked child would wait for the bus in vain.
  if (getpid() != m_nOwnPid) {
    return;
  }
  if (g_dbus_connection_is_closed(m_pGDBusConnection) == FALSE) {
    _AwaitSent(m_pGDBusConnection);
  }
  // The subscription's user data is this object. Calls under way have none and end in the log.
  if (m_nSubscriptionId != 0) {
    g_dbus_connection_signal_unsubscribe(m_pGDBusConnection, m_nSubscriptionId);
  }
  g_clear_object(&m_pGDBusProxy);
  g_clear_object(&m_pGDBusConnection);
}

void CIpcClientImpl::RegisterEventHandler(const std::string& appEvt,
                                          const NOndaroAPI::IpcEventHandler& handler) {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  if (m_pGDBusConnection == nullptr || m_pGDBusProxy == nullptr) {
    throw CInvalidCaseException("Dbus Client is not created properly");
  }
  // One subscription serves all names: a second one would deliver every signal twice.
  if (m_nSubscriptionId == 0) {
    if (g_dbus_connection_is_closed(m_pGDBusConnection) == FALSE) {
      m_nSubscriptionId = g_dbus_connection_signal_subscribe(
          m_pGDBusConnection, nullptr, BusContract::INTERFACE, BusContract::SIGNAL_TO_CLIENT,
          BusContract::OBJECT_PATH, nullptr, G_DBUS_SIGNAL_FLAGS_NONE, _DbusSignalCallback, this,
          nullptr);
    }
    if (m_nSubscriptionId == 0) {
      throw CInvalidCaseException("g_dbus_connection_signal_subscribe failed");
    }
  }
  m_eventHandlerMap[appEvt] = handler;
}

void CIpcClientImpl::UnregisterEventHandler() {
  m_eventHandlerMap.clear();
  if (m_pGDBusConnection != nullptr && m_nSubscriptionId != 0) {
    g_dbus_connection_signal_unsubscribe(m_pGDBusConnection, m_nSubscriptionId);
    m_nSubscriptionId = 0;
  }
}

void CIpcClientImpl::SendDataToServer(const std::string& appEvt, const std::string& data) {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  if (m_pGDBusProxy == nullptr) {
    throw CInvalidCaseException("m_pGDBusProxy is NULL");
  }
  GVariant* const event = BusContract::MakeEvent(appEvt, data);
  PAL_LOG_INFO("Values are being sent. appEvt : %s, surfaceId : %s", appEvt.c_str(), data.c_str());
  g_dbus_proxy_call(
      m_pGDBusProxy, BusContract::METHOD_TO_SERVER, event, G_DBUS_CALL_FLAGS_NONE, DEFAULT_TIMEOUT,
      nullptr,
      [](GObject* source, GAsyncResult* res, gpointer user_data) {
        _SendDataToServerAyncResultCallback(reinterpret_cast<GDBusProxy*>(source), res, user_data);
      },
      nullptr);
}

void CIpcClientImpl::_SendDataToServerAyncResultCallback(GDBusProxy* proxy, GAsyncResult* res,
                                                         gpointer) {
  CGErrorOut error;
  const GLibPtr<GVariant> reply(g_dbus_proxy_call_finish(proxy, res, error.Out()));
  if (reply == nullptr) {
    PAL_LOG_ERROR("g_dbus_proxy_call_finish error : %s", error.Message());
    return;
  }
  if (g_variant_is_of_type(reply.get(), G_VARIANT_TYPE(BusContract::REPLY_TYPE)) == FALSE) {
    PAL_LOG_ERROR("unexpected reply %s", g_variant_get_type_string(reply.get()));
    return;
  }
  gint32 result = 0;
  g_variant_get(reply.get(), BusContract::REPLY_TYPE, &result);
  PAL_LOG_INFO("g_dbus_proxy_call result : %d", result);
}

void CIpcClientImpl::_DbusSignalCallback(GDBusConnection*, const gchar* sender_name,
                                         const gchar* object_path, const gchar* interface_name,
                                         const gchar* signal_name, GVariant* parameters,
                                         gpointer user_data) {
  if (!CLiveObjects<CIpcClientImpl>::Has(user_data)) {
    return;
  }
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  PAL_LOG_ERROR("Start sender_name:%s, object_path:%s,  interface_name:%s,  signal_name:%s",
                sender_name, object_path, interface_name, signal_name);
  if (g_strcmp0(signal_name, BusContract::SIGNAL_TO_CLIENT) == 0) {
    // Anyone on the bus may emit this signal, with any arguments.
    if (g_variant_is_of_type(parameters, G_VARIANT_TYPE(BusContract::EVENT_TYPE)) != FALSE) {
      try {
        const gchar* appEvt = nullptr;
        const gchar* data = nullptr;
        g_variant_get(parameters, "(&s&s)", &appEvt, &data);
        static_cast<CIpcClientImpl*>(user_data)->_CallDbusClientCallback(appEvt, data);
      } catch (...) {
        LogCaught(ONDARO_CALL_SITE);
      }
    } else {
      PAL_LOG_ERROR("unexpected arguments %s", g_variant_get_type_string(parameters));
    }
  }
  PAL_LOG_ERROR("Finish sender_name:%s, object_path:%s,  interface_name:%s,  signal_name:%s",
                sender_name, object_path, interface_name, signal_name);
}

void CIpcClientImpl::_CallDbusClientCallback(const std::string& appEvt, const std::string& data) {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  const auto entry = m_eventHandlerMap.find(appEvt);
  if (entry == m_eventHandlerMap.end()) {
    return;
  }
  // A copy: the handler may replace or remove itself in the table while it runs.
  const NOndaroAPI::IpcEventHandler handler = entry->second;
  handler(data);
}

}  // namespace NOndaroPAL
