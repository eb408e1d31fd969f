/* The same program when it has used the library: PROPERTY was read. */
#include <gio/gio.h>
#include <unistd.h>

#include "ondaro/OndaroApi.h"

int main(void) {
  GMainLoop* loop = g_main_loop_new(NULL, FALSE);
  GVariant* message = g_variant_ref_sink(g_variant_new("(ss)", "event", "data"));
  GCancellable* cancellable = g_cancellable_new();
  uint32_t length = 0;
  const char* value =
      OndaroApi_SystemConfig_GetProperty(OndaroFactory_GetSystemConfigHandle(), PROPERTY, &length);
  char byte = '.';
  const gboolean seen =
      value != NULL && write(STDOUT_FILENO, &byte, 1) == 1 && read(STDIN_FILENO, &byte, 1) == 0;
  OndaroApi_SystemConfig_DestroyProperty(value);
  g_object_unref(cancellable);
  g_variant_unref(message);
  g_main_loop_unref(loop);
  return seen ? 0 : 1;
}
