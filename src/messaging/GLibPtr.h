#ifndef ONDARO_SRC_GLIBPTR_H
#define ONDARO_SRC_GLIBPTR_H

#include <gio/gio.h>

#include <memory>

/// Owners of what GLib hands out, for the time between getting it and passing it on.
struct SGLibRelease {
  void operator()(gchar* text) const noexcept { g_free(text); }
  void operator()(GVariant* variant) const noexcept { g_variant_unref(variant); }
  void operator()(GMarkupParseContext* context) const noexcept {
    g_markup_parse_context_free(context);
  }
  void operator()(GDBusNodeInfo* info) const noexcept { g_dbus_node_info_unref(info); }
  void operator()(GDBusConnection* connection) const noexcept { g_object_unref(connection); }
  void operator()(GDBusProxy* proxy) const noexcept { g_object_unref(proxy); }
};

template <typename TResource>
using GLibPtr = std::unique_ptr<TResource, SGLibRelease>;

/// Takes the address of a GError pointer for one call and owns what the call stored there.
class CGErrorOut {
 public:
  CGErrorOut() = default;
  ~CGErrorOut() { g_clear_error(&m_pError); }

  CGErrorOut(const CGErrorOut&) = delete;
  CGErrorOut& operator=(const CGErrorOut&) = delete;

  GError** Out() noexcept { return &m_pError; }
  const char* Message() const noexcept { return m_pError != nullptr ? m_pError->message : ""; }

 private:
  GError* m_pError = nullptr;
};

#endif
