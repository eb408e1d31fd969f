/*
 * The application's end: asks the daemon to play and then to stop, and prints what comes back by
 * event and by property. Ends when both exchanges are complete, with 1 when they take too long.
 */
#include <gio/gio.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ondaro/OndaroApi.h"

#define PATIENCE_SECONDS 20

typedef struct {
  OndaroApi_IpcClient_h ipc;
  GMainLoop* loop;
  bool answered; /* the daemon's event came */
  bool changed;  /* the status property changed */
  bool stopping; /* the second exchange is under way */
  bool complete;
} Application;

static void Ask(const Application* application, const char* event, const char* data) {
  printf("application: ask for %s %s\n", event, data);
  if (OndaroApi_IpcClient_SendDataToServer(application->ipc, event, data) != 0) {
    fprintf(stderr, "application: %s was not sent\n", event);
  }
}

/* Event and property come by different ways, in either order. */
static void Proceed(Application* application) {
  if (!application->answered || !application->changed) {
    return;
  }
  application->answered = application->changed = false;
  if (!application->stopping) {
    application->stopping = true;
    Ask(application, "stop", "trailer");
  } else {
    application->complete = true;
    g_main_loop_quit(application->loop);
  }
}

static void OnEvent(const char* data, void* userData) {
  Application* application = userData;
  printf("application: the daemon %s %s\n", application->stopping ? "stopped" : "started", data);
  application->answered = true;
  Proceed(application);
}

static void OnStatus(const char* data, void* userData) {
  Application* application = userData;
  printf("application: status %s\n", data);
  application->changed = strcmp(data, application->stopping ? "idle" : "playing") == 0;
  Proceed(application);
}

/* Asks again for what a daemon that went away has not answered. */
static void OnDaemonAppeared(GDBusConnection* connection, const gchar* name, const gchar* owner,
                             gpointer userData) {
  (void)connection, (void)name, (void)owner;
  Application* application = userData;
  Ask(application, application->stopping ? "stop" : "play", "trailer");
}

static gboolean OnTimeout(gpointer loop) {
  g_main_loop_quit(loop);
  return G_SOURCE_CONTINUE;
}

int main(void) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  OndaroApi_SystemConfig_h config = OndaroFactory_GetSystemConfigHandle();
  Application application = {.ipc = OndaroFactory_GetIpcClientHandle(),
                             .loop = g_main_loop_new(NULL, FALSE)};
  if (config == NULL || application.ipc == NULL) {
    fprintf(stderr, "application: no service; the platform log says why\n");
    return EXIT_FAILURE;
  }
  OndaroApi_SystemConfig_RegisterEventHandler(config, "ONDARO_STATUS", OnStatus, &application);
  OndaroApi_IpcClient_RegisterEventHandler(application.ipc, "started", OnEvent, &application);
  OndaroApi_IpcClient_RegisterEventHandler(application.ipc, "stopped", OnEvent, &application);

  /* What is sent while no daemon is there is lost, and only the log says so. */
  guint watch =
      g_bus_watch_name(G_BUS_TYPE_SYSTEM, "com.halvex.tv.ondaro", G_BUS_NAME_WATCHER_FLAGS_NONE,
                       OnDaemonAppeared, NULL, &application, NULL);
  g_timeout_add_seconds(PATIENCE_SECONDS, OnTimeout, application.loop);
  g_main_loop_run(application.loop);

  g_bus_unwatch_name(watch);
  OndaroApi_IpcClient_UnregisterEventHandler(application.ipc);
  OndaroApi_SystemConfig_UnregisterEventHandler(config, "ONDARO_STATUS");
  g_main_loop_unref(application.loop);
  return application.complete ? EXIT_SUCCESS : EXIT_FAILURE;
}
