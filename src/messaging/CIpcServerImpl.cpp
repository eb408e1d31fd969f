#include "ondaro/pal/CIpcServerImpl.h"

#include <unistd.h>

#include <string_view>

#include "CallbackFunnel.h"
#include "InterfaceDescription.h"
#include "LiveObjects.h"
#include "OndaroPALDebug.h"
#include "messaging/BusContract.h"
#include "messaging/GLibPtr.h"
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
      g_markup_parse_context_new(&PARSER, GMarkupParseFlags{}, nullptr, nullptr));
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

/// Installed in the wrong place of the bus, the object is never called, and GLib sends no reply of
/// another type than the described one; the server sends all the same.
void _CompareWithContract(const GDBusNodeInfo& node) {
  const char* const interface = node.interfaces[0]->name;
  if (g_strcmp0(node.path, BusContract::OBJECT_PATH) != 0 ||
      g_strcmp0(interface, BusContract::INTERFACE) != 0) {
    PAL_LOG_ERROR("%s: describes %s at %s, but callers use %s at %s", INTERFACE_DESCRIPTION_PATH,
                  interface, node.path, BusContract::INTERFACE, BusContract::OBJECT_PATH);
  }
  const GDBusMethodInfo* const method =
      g_dbus_interface_info_lookup_method(node.interfaces[0], BusContract::METHOD_TO_SERVER);
  std::string reply = "(";
  GDBusArgInfo** argument = method != nullptr ? method->out_args : nullptr;
  for (; argument != nullptr && *argument != nullptr; ++argument) {
    reply += (*argument)->signature;
  }
  if (method != nullptr && (reply += ')') != BusContract::REPLY_TYPE) {
    PAL_LOG_ERROR("%s: %s is answered with %s, not %s, and so not at all",
                  INTERFACE_DESCRIPTION_PATH, method->name, BusContract::REPLY_TYPE, reply.c_str());
  }
}

/// Answers a call when the handler has returned, thrown or ended its thread.
class CReply {
 public:
  explicit CReply(GDBusMethodInvocation* invocation) : m_pInvocation(invocation) {}
  ~CReply() {
    g_dbus_method_invocation_return_value(m_pInvocation,
                                          g_variant_new(BusContract::REPLY_TYPE, REPLY_HANDLED));
  }
  CReply(const CReply&) = delete;
  CReply& operator=(const CReply&) = delete;

 private:
  GDBusMethodInvocation* m_pInvocation;
};

}  // namespace

CIpcServerImpl::CIpcServerImpl() : m_nOwnPid(getpid()) {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  GLibPtr<GDBusNodeInfo> description = _LoadDescription();
  _CompareWithContract(*description);
  CLiveObjects<CIpcServerImpl>::Add(this);
  m_pBusNodeInfo = description.release();
  m_nOwnerId = g_bus_own_name(BusContract::BUS_TYPE, BusContract::NAME, G_BUS_NAME_OWNER_FLAGS_NONE,
                              BusAcquiredCallback, BusNameAcquiredCallback, BusNameLostCallback,
                              this, nullptr);
  PAL_LOG_DEBUG("g_bus_own_name return: %d", static_cast<int>(m_nOwnerId));
}

CIpcServerImpl::~CIpcServerImpl() {
  ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  CLiveObjects<CIpcServerImpl>::Remove(this);
  // GLib's thread did not come along: a forked child would wait for the bus in vain.
  if (getpid() != m_nOwnPid) {
    g_dbus_node_info_unref(m_pBusNodeInfo);
    return;
  }
  if (m_pDbusConnection != nullptr && m_nRegistrationId != 0) {
    const gboolean removed =
        g_dbus_connection_unregister_object(m_pDbusConnection, m_nRegistrationId);
    PAL_LOG_DEBUG("unregister_object() result:%s", removed != FALSE ? "OK" : "FAILED");
  }
  g_bus_unown_name(m_nOwnerId);
  // Without a recorded connection the object may be registered all the same: the bus was
  // acquired and the name not yet, or the connection was lost with calls still queued.
  if (m_isConnectionHeld) {
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
  if (!CLiveObjects<CIpcServerImpl>::Has(user_data)) {
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
  // Held while signals may be sent: GLib lets go of a closed connection before it tells of the
  // loss.
  pThis->m_pObjectConnection = static_cast<GDBusConnection*>(g_object_ref(pDbusConnection));
  pThis->m_isConnectionHeld = true;
  static constexpr GDBusInterfaceVTable HANDLERS = {
      BusInterfaceMethodCallback, nullptr, nullptr, {}};
  CGErrorOut error;
  pThis->m_nRegistrationId = g_dbus_connection_register_object(
      pDbusConnection, pNode->path, pNode->interfaces[0], &HANDLERS, pThis, nullptr, error.Out());
  if (pThis->m_nRegistrationId == 0) {
    PAL_LOG_ERROR("g_dbus_connection_register_object failed: %s", error.Message());
  }
}

void CIpcServerImpl::BusNameAcquiredCallback(GDBusConnection* pDbusConnection, const gchar* name,
                                             gpointer user_data) {
  if (!CLiveObjects<CIpcServerImpl>::Has(user_data)) {
    return;
  }
  PAL_LOG_INFO("pDbusConnection:%p,  name:%s", static_cast<void*>(pDbusConnection), name);
  auto* pThis = static_cast<CIpcServerImpl*>(user_data);
  pThis->m_pDbusConnection = pDbusConnection;
  if (!pThis->m_isConnectionHeld && pDbusConnection == pThis->m_pObjectConnection) {
    g_object_ref(pDbusConnection);
    pThis->m_isConnectionHeld = true;
  }
}

void CIpcServerImpl::BusNameLostCallback(GDBusConnection* pDbusConnection, const gchar* name,
                                         gpointer user_data) {
  if (!CLiveObjects<CIpcServerImpl>::Has(user_data)) {
    return;
  }
  PAL_LOG_INFO("pDbusConnection:%p,  name:%s", static_cast<void*>(pDbusConnection), name);
  auto* pThis = static_cast<CIpcServerImpl*>(user_data);
  pThis->m_pDbusConnection = nullptr;
  // A lost name may come back, a closed connection does not, and of its closing nobody tells a
  // server that waits for the name: one that is held would be the process's shared one for ever.
  if (pThis->m_isConnectionHeld) {
    g_dbus_connection_unregister_object(pThis->m_pObjectConnection, pThis->m_nRegistrationId);
    g_object_unref(pThis->m_pObjectConnection);
    pThis->m_isConnectionHeld = false;
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
    if (!CLiveObjects<CIpcServerImpl>::Has(user_data)) {
      g_object_unref(invocation);
      return;
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
  const CReply reply(invocation);
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
}

}  // namespace NOndaroPAL
