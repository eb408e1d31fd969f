/* The least that GDBus needs for the same: a name, an object, an answer, a signal. */
#include <gio/gio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define NAME "com.halvex.tv.plains" /* as long as the library's */
#define OBJECT_PATH "/com/halvex/tv/plains"

static const char DESCRIPTION[] =
    "<node><interface name='" NAME
    "'><method name='sendDataToServer'><arg type='s' direction='in'/>"
    "<arg type='s' direction='in'/><arg type='i' direction='out'/></method></interface></node>";

static GDBusConnection* theConnection;
static char* thePayload;

static void OnCall(GDBusConnection* connection, const gchar* sender, const gchar* path,
                   const gchar* interface, const gchar* method, GVariant* body,
                   GDBusMethodInvocation* invocation, gpointer userData) {
  (void)connection, (void)sender, (void)path, (void)interface, (void)method, (void)userData;
  const gchar* event = NULL;
  const gchar* data = NULL;
  g_variant_get(body, "(&s&s)", &event, &data);
  g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", 0));
}

static void OnBus(GDBusConnection* connection, const gchar* name, gpointer node) {
  (void)name;
  static const GDBusInterfaceVTable handlers = {.method_call = OnCall};
  theConnection = connection;
  g_dbus_connection_register_object(connection, OBJECT_PATH, ((GDBusNodeInfo*)node)->interfaces[0],
                                    &handlers, NULL, NULL, NULL);
}

static gboolean OnInput(GIOChannel* channel, GIOCondition condition, gpointer userData) {
  (void)channel, (void)condition, (void)userData;
  char letters[64];
  const ssize_t size = read(STDIN_FILENO, letters, sizeof letters);
  if (size <= 0) {
    exit(EXIT_SUCCESS);
  }
  for (ssize_t i = 0; i < size; ++i) {
    if (letters[i] == 's') {
      g_dbus_connection_emit_signal(theConnection, NULL, OBJECT_PATH, NAME, "sendDataToClient",
                                    g_variant_new("(ss)", "event", thePayload), NULL);
    } else {
      g_free(thePayload);
      thePayload = g_strnfill((gsize)1 << (letters[i] - 'A'), 'x');
    }
  }
  return G_SOURCE_CONTINUE;
}

int main(void) {
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(DESCRIPTION, NULL);
  g_bus_own_name(G_BUS_TYPE_SYSTEM, NAME, G_BUS_NAME_OWNER_FLAGS_NONE, OnBus, NULL, NULL, node,
                 NULL);
  g_io_add_watch(g_io_channel_unix_new(STDIN_FILENO), G_IO_IN | G_IO_HUP, OnInput, NULL);
  g_main_loop_run(g_main_loop_new(NULL, FALSE));
}
