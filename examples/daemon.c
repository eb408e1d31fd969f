/*
 * The daemon's end: plays what an application asks for, says so in the status property, and
 * answers with an event. Ends on SIGINT and SIGTERM.
 */
#include <glib-unix.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include "ondaro/OndaroApi.h"

typedef struct {
  OndaroApi_SystemConfig_h config;
  OndaroApi_IpcServer_h ipc;
} Daemon;

/* Events go to every application that listens; nothing tells whether one did. */
static void Announce(const Daemon* daemon, const char* status, const char* event,
                     const char* data) {
  if (!OndaroApi_SystemConfig_SetProperty(daemon->config, "ONDARO_STATUS", status)) {
    fprintf(stderr, "daemon: the status was not stored\n");
  }
  if (OndaroApi_IpcServer_SendDataToClient(daemon->ipc, event, data) != 0) {
    fprintf(stderr, "daemon: %s was not sent\n", event);
  }
}

/* The callbacks' data is valid during the call only; the user data is what was registered. */
static void OnPlay(const char* data, void* userData) {
  printf("daemon: play %s\n", data);
  Announce(userData, "playing", "started", data);
}

static void OnStop(const char* data, void* userData) {
  printf("daemon: stop %s\n", data);
  Announce(userData, "idle", "stopped", data);
}

static gboolean OnSignal(gpointer loop) {
  g_main_loop_quit(loop);
  return G_SOURCE_CONTINUE;
}

int main(void) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  Daemon daemon = {OndaroFactory_GetSystemConfigHandle(), OndaroFactory_GetIpcServerHandle()};
  if (daemon.config == NULL || daemon.ipc == NULL) {
    fprintf(stderr, "daemon: no service; the platform log says why\n");
    return EXIT_FAILURE;
  }
  if (!OndaroApi_SystemConfig_SetProperty(daemon.config, "ONDARO_STATUS", "idle")) {
    fprintf(stderr, "daemon: the status was not stored\n");
  }
  /* Registered before the main loop runs, so that no call finds an empty table. */
  OndaroApi_IpcServer_RegisterEventHandler(daemon.ipc, "play", OnPlay, &daemon);
  OndaroApi_IpcServer_RegisterEventHandler(daemon.ipc, "stop", OnStop, &daemon);

  GMainLoop* loop = g_main_loop_new(NULL, FALSE);
  g_unix_signal_add(SIGINT, OnSignal, loop);
  g_unix_signal_add(SIGTERM, OnSignal, loop);
  g_main_loop_run(loop);

  /* The callbacks point into this function's stack. The handles themselves are never released. */
  OndaroApi_IpcServer_UnregisterEventHandler(daemon.ipc);
  g_main_loop_unref(loop);
  return EXIT_SUCCESS;
}
