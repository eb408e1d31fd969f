/* The least a program with a bus and a main loop is made of, for C and C++ compilers alike. With
   PROPERTY it also reads that through the library. With an argument it tells what memory it has. */
#include <gio/gio.h>
#include <stdio.h>
#include <string.h>

#ifdef PROPERTY
#include "ondaro/OndaroApi.h"
#endif

static void TellMemory(void) {
  char line[256];
  FILE* rollup = fopen("/proc/self/smaps_rollup", "r");
  while (rollup != NULL && fgets(line, sizeof line, rollup) != NULL) {
    if (strncmp(line, "Rss:", 4) == 0 || strncmp(line, "Anonymous:", 10) == 0) {
      fputs(line, stdout);
    }
  }
}

int main(int argc, char** argv) {
  (void)argv;
  GMainLoop* loop = g_main_loop_new(NULL, FALSE);
  GVariant* message = g_variant_ref_sink(g_variant_new("(ss)", "event", "data"));
  GCancellable* cancellable = g_cancellable_new();
#ifdef PROPERTY
  uint32_t length = 0;
  const char* value =
      OndaroApi_SystemConfig_GetProperty(OndaroFactory_GetSystemConfigHandle(), PROPERTY, &length);
  OndaroApi_SystemConfig_DestroyProperty(value);
#endif
  if (argc > 1) {
    TellMemory();
  }
  g_object_unref(cancellable);
  g_variant_unref(message);
  g_main_loop_unref(loop);
  return 0;
}
