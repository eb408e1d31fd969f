#include "ondaro/pal/CIpcServerImpl.h"

#include <unistd.h>

#include <mutex>
#include <set>
#include <string_view>

#include "BusContract.h"
#include "CallbackFunnel.h"
#include "GLibPtr.h"
#include "InterfaceDescription.h"
#include "OndaroPALDebug.h"
#include "ondaro/pal/CException.h"

namespace NOndaroPAL {

namespace {

constexpr int REPLY_HANDLED = 0;

[[noreturn]] void _RefuseDescription(const std::string& reason) {
  throw CInvalidCaseException(std::string(INTERFACE_DESCRIPTION_PATH) + ": " + reason);
}

/// One complete type that a message can carry, for each argument.
bool _AreSingleTypes(GDBusArgInfo** arguments) {
  for (; arguments != nullptr && *arguments != nullptr; ++arguments) {
    const gchar* type = (*arguments)->signature;
    if (g_variant_type_string_is_valid(type) == FALSE || g_variant_is_signature(type) == FALSE) {
      return false;
    }
  }
  return true;
}

/// GLib takes any text for a path, a name or a type from the file and trips over it only later.
void _RequireRegistrable(const GDBusNodeInfo& node) {
  if (node.path == nullptr || g_variant_is_object_path(node.path) == FALSE) {
    _RefuseDescription("the root node names no object path");
  }
  if (node.interfaces == nullptr || node.interfaces[0] == nullptr ||
      g_dbus_is_interface_name(node.interfaces[0]->name) == FALSE) {
    _RefuseDescription("the root node has no interface");
  }
  GDBusMethodInfo** method = node.interfaces[0]->methods;
  for (; method != nullptr && *method != nullptr; ++method) {
    if (!_AreSingleTypes((*method)->in_args) || !_AreSingleTypes((*method)->out_args)) {
      _RefuseDescription("a method has an argument without a valid type");
    }
  }
}

void _RefuseNodeInOther(GMarkupParseContext* context, const gchar* element, const gchar**,
                        const gchar**, gpointer, GError** error) {
  const GSList* parent = g_markup_parse_context_get_element_stack(context)->next;
  if (g_strcmp0(element, "node") == 0 && parent != nullptr &&
      g_strcmp0(static_cast<const gchar*>(parent->data), "node") != 0) {
    g_set_error_literal(error, G_MARKUP_ERROR, G_MARKUP_ERROR_INVALID_CONTENT,
                        "a node stands in an element other than a node");
  }
}

/// GLib's parser of descriptions crashes on such a node.
void _RequireNodesInNodes(const gchar* text) {
  static constexpr GMarkupParser PARSER = {_RefuseNodeInOther, nullptr, nullptr, nullptr, nullptr};
  const GLibPtr<GMarkupParseContext> context(
      g_markup_parse_context_new(&PARSER, G_MARKUP_DEFAULT_FLAGS, nullptr, nullptr));
  CGErrorOut error;
  if (g_markup_parse_context_parse(context.get(), text, -1, error.Out()) == FALSE) {
    _RefuseDescription(error.Message());
  }
}

GLibPtr<GDBusNodeInfo> _LoadDescription() {
  CGErrorOut error;
  gchar* contents = nullptr;
  if (g_file_get_contents(INTERFACE_DESCRIPTION_PATH, &contents, nullptr, error.Out()) == FALSE) {
    _RefuseDescription(error.Message());
  }
  const GLibPtr<gchar> text(contents);
  _RequireNodesInNodes(text.get());
  GLibPtr<GDBusNodeInfo> node(g_dbus_node_info_new_for_xml(text.get(), error.Out()));
  if (node == nullptr) {
    _RefuseDescription(error.Message());
  }
  _RequireRegistrable(*node);
  return node;
}

/// The servers there are. A lost connection is told of in the context that made it, from where GLib
/// queues the name's loss for the server's: that may arrive when the server is gone.
class CLiveServers {
 public:
  static CLiveServers& Get() {
    // Never destroyed: the services of the process go at its exit, in an order of their own.
    static auto* const servers = new CLiveServers;
    return *servers;
  }
  void Add(const void* pServer) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_servers.insert(pServer);
  }
  void Remove(const void* pServer) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_servers.erase(pServer);
  }
  bool Has(const void* pServer) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_servers.count(pServer) != 0;
  }

 private:
  std::mutex m_mutex;
  std::set<const void*> m_servers;
};

}  // namespace

CIpcServerImpl::CIpcServerImpl() : m_nOwnPid(getpid()) {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  m_pBusNodeInfo = _LoadDescription().release();
  CLiveServers::Get().Add(this);
  m_nOwnerId = g_bus_own_name(BusContract::BUS_TYPE, BusContract::NAME, G_BUS_NAME_OWNER_FLAGS_NONE,
                              BusAcquiredCallback, BusNameAcquiredCallback, BusNameLostCallback,
                              this, nullptr);
  PAL_LOG_DEBUG("g_bus_own_name return: %d", static_cast<int>(m_nOwnerId));
}

CIpcServerImpl::~CIpcServerImpl() {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  // GLib's thread did not come along: a forked child would wait for the bus in vain.
  if (getpid() != m_nOwnPid) {
    g_dbus_node_info_unref(m_pBusNodeInfo);
    return;
  }
  CLiveServers::Get().Remove(this);
  if (m_pDbusConnection != nullptr && m_nRegistrationId != 0) {
    const gboolean removed =
        g_dbus_connection_unregister_object(m_pDbusConnection, m_nRegistrationId);
    PAL_LOG_DEBUG("unregister_object() result:%s", removed != FALSE ? "OK" : "FAILED");
  }
  g_bus_unown_name(m_nOwnerId);
  // Without a recorded connection the object may be registered all the same: the bus was
  // acquired and the name not yet, or the connection was lost with calls still queued.
  if (m_pObjectConnection != nullptr) {
    g_dbus_connection_unregister_object(m_pObjectConnection, m_nRegistrationId);
    g_object_unref(m_pObjectConnection);
  }
  g_dbus_node_info_unref(m_pBusNodeInfo);
}

void CIpcServerImpl::RegisterEventHandler(const std::string& appEvt,
                                          const NOndaroAPI::IpcEventHandler& handler) {
  ONDAROCALLTRACE_ERROR tracer(__PRETTY_FUNCTION__);
  m_eventHandlerMap[appEvt] = handler;
}

void CIpcServerImpl::UnregisterEventHandler() {
  ONDAROCALLTRACE_ERROR tracer(__PRETTY_FUNCTION__);
  m_eventHandlerMap.clear();
}

void CIpcServerImpl::SendDataToClient(const std::string& appEvt, const std::string& data) {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  if (m_pDbusConnection == nullptr) {
    throw CInvalidCaseException("m_pDbusConnection is NULL");
  }
  CGErrorOut error;
  const gboolean emitted = g_dbus_connection_emit_signal(
      m_pDbusConnection, nullptr, BusContract::OBJECT_PATH, BusContract::INTERFACE,
      BusContract::SIGNAL_TO_CLIENT, BusContract::MakeEvent(appEvt, data), error.Out());
  if (emitted != FALSE) {
    PAL_LOG_DEBUG("DBUS success emit signal");
  } else {
    PAL_LOG_ERROR("DBUS emit signal failed: %s", error.Message());
  }
}

void CIpcServerImpl::BusAcquiredCallback(GDBusConnection* pDbusConnection, const gchar* name,
                                         gpointer user_data) {
  if (!CLiveServers::Get().Has(user_data)) {
    return;
  }
  PAL_LOG_DEBUG("pDbusConnection:%p,  name:%s", static_cast<void*>(pDbusConnection), name);
  auto* pThis = static_cast<CIpcServerImpl*>(user_data);
  GDBusNodeInfo* const pNode = pThis->m_pBusNodeInfo;
  PAL_LOG_DEBUG(
      "pThis->m_pBusNodeInfo:%p, pThis->m_pBusNodeInfo->path:%p, pThis->m_pBusNodeInfo->path:%s, "
      "pThis->m_pBusNodeInfo->interfaces[0]:%p",
      static_cast<void*>(pNode), static_cast<void*>(pNode->path), pNode->path,
      static_cast<void*>(pNode->interfaces[0]));
  static constexpr GDBusInterfaceVTable HANDLERS = {
      BusInterfaceMethodCallback, nullptr, nullptr, {}};
  CGErrorOut error;
  pThis->m_nRegistrationId = g_dbus_connection_register_object(
      pDbusConnection, pNode->path, pNode->interfaces[0], &HANDLERS, pThis, nullptr, error.Out());
  if (pThis->m_nRegistrationId == 0) {
    PAL_LOG_ERROR("g_dbus_connection_register_object failed: %s", error.Message());
    return;
  }
  pThis->m_pObjectConnection = static_cast<GDBusConnection*>(g_object_ref(pDbusConnection));
}

void CIpcServerImpl::BusNameAcquiredCallback(GDBusConnection* pDbusConnection, const gchar* name,
                                             gpointer user_data) {
  if (!CLiveServers::Get().Has(user_data)) {
    return;
  }
  PAL_LOG_INFO("pDbusConnection:%p,  name:%s", static_cast<void*>(pDbusConnection), name);
  static_cast<CIpcServerImpl*>(user_data)->m_pDbusConnection = pDbusConnection;
}

void CIpcServerImpl::BusNameLostCallback(GDBusConnection* pDbusConnection, const gchar* name,
                                         gpointer user_data) {
  if (!CLiveServers::Get().Has(user_data)) {
    return;
  }
  PAL_LOG_INFO("pDbusConnection:%p,  name:%s", static_cast<void*>(pDbusConnection), name);
  auto* pThis = static_cast<CIpcServerImpl*>(user_data);
  pThis->m_pDbusConnection = nullptr;
  if (pDbusConnection != nullptr && pThis->m_nRegistrationId != 0) {
    g_dbus_connection_unregister_object(pDbusConnection, pThis->m_nRegistrationId);
  }
}

void CIpcServerImpl::BusInterfaceMethodCallback(GDBusConnection*, const gchar* sender,
                                                const gchar* object_path,
                                                const gchar* interface_name,
                                                const gchar* method_name, GVariant* parameters,
                                                GDBusMethodInvocation* invocation,
                                                gpointer user_data) {
  PAL_LOG_INFO("Start sender:%s  object_path:%s  interface_name:%s  method_name:%s", sender,
               object_path, interface_name, method_name);
  try {
    if (g_strcmp0(method_name, BusContract::METHOD_TO_SERVER) != 0) {
      PAL_LOG_ERROR("invalid method is sent method_name : %s  \n", method_name);
      // A description that declares more than the one method; its caller gets no answer.
      g_object_unref(invocation);
      throw CInvalidCaseException("invalid method is sent");
    }
    static_cast<CIpcServerImpl*>(user_data)->HandleAppData(parameters, invocation, user_data);
    PAL_LOG_INFO("Finish sender:%s  object_path:%s  interface_name:%s  method_name:%s", sender,
                 object_path, interface_name, method_name);
  } catch (...) {
    LogCaught(ONDARO_CALL_SITE);
  }
}

void CIpcServerImpl::HandleAppData(GVariant* parameters, GDBusMethodInvocation* invocation,
                                   gpointer) {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  if (g_variant_is_of_type(parameters, G_VARIANT_TYPE(BusContract::EVENT_TYPE)) == FALSE) {
    PAL_LOG_ERROR("unexpected arguments %s", g_variant_get_type_string(parameters));
    g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                                          "%s expected", BusContract::EVENT_TYPE);
    return;
  }
  // Owned by the parameters, which live until the call is answered.
  const gchar* appEvt = nullptr;
  const gchar* data = nullptr;
  g_variant_get(parameters, "(&s&s)", &appEvt, &data);
  PAL_LOG_INFO("appEvt : %s, data : %s", appEvt, data);

  const auto entry = m_eventHandlerMap.find(std::string_view(appEvt));
  if (entry != m_eventHandlerMap.end()) {
    try {
      // A copy: the handler may replace or remove itself in the table while it runs.
      const NOndaroAPI::IpcEventHandler handler = entry->second;
      handler(data);
    } catch (...) {
      LogCaught(ONDARO_CALL_SITE);
    }
  } else {
    PAL_LOG_ERROR("appEvt %s is not registered", appEvt);
    for (const auto& [registered, handler] : m_eventHandlerMap) {
      PAL_LOG_ERROR("registered appEvt : %s", registered.c_str());
    }
  }
  // Nothing of the object from here on: the handler may have changed it.
  g_dbus_method_invocation_return_value(invocation,
                                        g_variant_new(BusContract::REPLY_TYPE, REPLY_HANDLED));
}

}  // namespace NOndaroPAL
