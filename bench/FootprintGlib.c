/* The least a program with a bus and a main loop is made of. Linked also with the library, to see
   what its mere presence costs. Says when it is ready, then waits to be looked at. */
#include <gio/gio.h>
#include <unistd.h>

int main(void) {
  GMainLoop* loop = g_main_loop_new(NULL, FALSE);
  GVariant* message = g_variant_ref_sink(g_variant_new("(ss)", "event", "data"));
  GCancellable* cancellable = g_cancellable_new();
  char byte = '.';
  const gboolean seen = write(STDOUT_FILENO, &byte, 1) == 1 && read(STDIN_FILENO, &byte, 1) == 0;
  g_object_unref(cancellable);
  g_variant_unref(message);
  g_main_loop_unref(loop);
  return seen ? 0 : 1;
}
