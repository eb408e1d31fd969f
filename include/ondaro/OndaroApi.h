/**
 * @file
 * The exported C interface of lib-ondaro-platform-tv.
 *
 * Conventions, valid for every function below unless it says otherwise:
 *
 * 1.  Handles. A handle stands for a service object of the process. A factory function creates
 *     the object on its first call and returns the same handle ever after, from any thread. A
 *     handle is never released by the caller; the objects are destroyed at process exit, in
 *     reverse order of their creation. A handle goes only to the functions of its own family.
 * 2.  Strings are NUL-terminated. The library copies what it needs before a call returns. Event
 *     names and event data are UTF-8.
 * 3.  Buffers that the library hands out belong to the caller, who releases them with the
 *     library's own destroy function of that family and with nothing else.
 * 4.  Failure. A function that fails writes an error line to the platform log and returns its
 *     failure value: null, false, -1, or nothing. There is no error code, no errno and no
 *     last-error state.
 * 5.  Null arguments. A null handle, or null for a pointer that is marked required, is a broken
 *     precondition: one error line, then the failure value. Nothing is read or changed. The line
 *     names the parameter; for the key or event name of a registration and the texts of a send it
 *     says instead that a string was to be made from null.
 * 6.  Exceptions derived from std::exception never leave a function. An exception of another
 *     type, which only the set's own services can throw, passes through, and so does the end of
 *     the thread by pthread_exit() or cancellation in a callback. Elsewhere the host process
 *     holds cancellation off (pthread_setcancelstate()): in a call, and in the delivery outside
 *     its callbacks, it may end the process or leave a lock of GLib's taken.
 * 7.  Threads. The library has no thread and no main loop, and takes no lock but for the first
 *     use of each factory. Different families are independent, but for reading SYSTEM_ID, which
 *     makes and asks the device-authentication service. Within one family the caller keeps
 *     registration, sending and the main loop that delivers events on one thread.
 * 8.  Main contexts. GLib delivers in the thread-default main context of the thread that caused
 *     what is delivered: the daemon's incoming events where the server handle was first
 *     obtained, the application's where a handler was registered while there was none, the
 *     completion of a send where it was sent, property changes where the settings store delivers
 *     (the host backend: where the handler was registered). The host process iterates each of
 *     them, and for the application also the one in which the client handle was first obtained,
 *     even if it only sends: GLib queues every event of the daemon there as well, and what is
 *     never taken from the queue grows without bound.
 * 9.  Callbacks run synchronously inside the delivery. They may call every function of this
 *     header, also to register, replace or unregister their own event. Their data argument is
 *     valid during the call only. User data is passed through and never released; the caller
 *     keeps it alive until the event is unregistered or replaced. An exception that leaves a
 *     callback ends there, with an error line.
 * 10. The bus connection is the shared system-bus connection of the process. GLib ends the
 *     process when that connection is closed by the bus, unless the host process turns this off
 *     with g_dbus_connection_set_exit_on_close(); the library leaves the setting alone.
 * 11. Exit. The services are destroyed while the process exits, after main() and before the
 *     handlers that were registered with atexit() before the handles were obtained. The host
 *     process ends its own threads first: a call that another thread makes meanwhile is not
 *     safe. Afterwards a call is an error line and a failure, a factory returns null, and what
 *     is still delivered does nothing. Beside a bus that stands still the exit waits half a
 *     second for the application's end, and for the daemon's until the bus answers, up to 25
 *     seconds.
 * 12. Fork. A child of fork() may exec, exit, and read and write properties; the messaging is
 *     its parent's: the child neither sends nor registers nor runs the main loop. When it exits,
 *     it leaves the parent's bus connection alone.
 * 13. The library stays loaded until the process ends (it is linked with -z nodelete), whatever
 *     dlclose() is told.
 */
#ifndef ONDARO_API_H
#define ONDARO_API_H

#include <stdint.h>

#include "ondaro/Export.h"

#ifdef __cplusplus
extern "C" {
#else
#include <stdbool.h>
#endif

/* ---- Handles ---------------------------------------------------------------------------- */

/** Stands for the property service. */
typedef struct OndaroApi_SystemConfig* OndaroApi_SystemConfig_h;

/** Stands for the application's end of the messaging. */
typedef struct OndaroApi_IpcClient* OndaroApi_IpcClient_h;

/** Stands for the daemon's end of the messaging. */
typedef struct OndaroApi_IpcServer* OndaroApi_IpcServer_h;

/** Stands for device authentication. */
typedef struct OndaroApi_CoreAuth* OndaroApi_CoreAuth_h;

/**
 * The process's property service.
 *
 * @return the handle; null with an error line when the service could not be created, in which
 *         case the next call tries again
 */
ONDARO_EXPORT OndaroApi_SystemConfig_h OndaroFactory_GetSystemConfigHandle(void);

/**
 * The application's end of the messaging. The first call connects to the system bus and asks the
 * daemon's object for its properties; it waits for the answer, up to 25 seconds. Do not make it
 * on the thread that serves the daemon's end of the same process: that thread would wait for
 * itself.
 *
 * @return the handle; null with an error line when the bus could not be reached, in which case
 *         the next call tries again. An absent daemon is no failure.
 */
ONDARO_EXPORT OndaroApi_IpcClient_h OndaroFactory_GetIpcClientHandle(void);

/**
 * The daemon's end of the messaging. The first call reads the interface description and requests
 * the well-known bus name; the name is owned once the main context has run. Another daemon that
 * owns it is waited for in the bus's queue. Until it is owned every send returns -1, so that one
 * that returns 0 tells that it is; there is no other notice.
 *
 * @return the handle; null with an error line when the interface description cannot be used, in
 *         which case the next call tries again
 */
ONDARO_EXPORT OndaroApi_IpcServer_h OndaroFactory_GetIpcServerHandle(void);

/**
 * The device-authentication service. The first call opens the content decryption module; when
 * the set has none for the key system, the handle is valid all the same and its requests fail.
 *
 * @return the handle; null with an error line when the service could not be created, in which
 *         case the next call tries again
 */
ONDARO_EXPORT OndaroApi_CoreAuth_h OndaroFactory_GetCoreAuthHandle(void);

/* ---- System configuration ---------------------------------------------------------------- */

/**
 * @page properties Properties
 *
 *     ONDARO_INIT              flag                                   read, write
 *     ONDARO_SUPPORT           flag                                   read, write, event
 *     ONDARO_CLEAR_DATA        flag                                   read, write, event
 *     ONDARO_ENABLE_USAGE_RPT  "false", "default", "true" or "set"    read, write, event
 *     ONDARO_TOS_STATUS        text                                   read, write, event
 *     ONDARO_STATUS            text; lost when the set is restarted   read, write, event (changed)
 *     ONDARO_ENROLLMENT        text                                   read, write, event (changed)
 *     WIDEVINE_ONDARO_VERSION  text                                   read, write, event (changed)
 *     WIDEVINE_ONDARO_SUPPORT  text                                   read, write, event (changed)
 *     SDR                      "1"                                    read
 *     SYSTEM_ID                the DRM system identifier              read
 *     TARGET_REPOSITORY        "emulator"                             read
 *     ONDARO_SET_PROCESS_GRP   an application's id: puts the calling  write
 *                              process into that application's group
 *
 * Flags read "true" or "false". An event (changed) comes only when the text differs from the last
 * one known; other events come with each notification of the settings store, equal values too.
 */

/**
 * Called when a property changed.
 *
 * @param data      the new value as text, valid during the call
 * @param userData  what was given at registration
 */
typedef void (*OndaroApi_SystemConfigEventCallback)(const char* data, void* userData);

/**
 * Reads a property.
 *
 * @param handle   required
 * @param key      required; the property's name, or "name:data" to pass data to the read
 * @param pLength  required; receives the value's length in bytes, without the final NUL. Written
 *                 as soon as there is a value, be it "error"; not when reading it threw.
 * @return the value, NUL-terminated, to be released with OndaroApi_SystemConfig_DestroyProperty();
 *         an empty string for an unknown property, "error" for a property that could not be read;
 *         null on failure
 */
ONDARO_EXPORT const char* OndaroApi_SystemConfig_GetProperty(OndaroApi_SystemConfig_h handle,
                                                             const char* key, uint32_t* pLength);

/**
 * Writes a property.
 *
 * @param handle  required
 * @param key     required; the property's name
 * @param val     required; the value. Flags store "true" for exactly that word and false for any
 *                other; the usage report stores an unknown word as "false".
 * @return true when the value was stored or, for ONDARO_SET_PROCESS_GRP, the group set; false
 *         for an unknown or read-only property or a refusal by the settings store
 */
ONDARO_EXPORT bool OndaroApi_SystemConfig_SetProperty(OndaroApi_SystemConfig_h handle,
                                                      const char* key, const char* val);

/**
 * Releases a value returned by OndaroApi_SystemConfig_GetProperty().
 *
 * @param val  the value; null is ignored
 */
ONDARO_EXPORT void OndaroApi_SystemConfig_DestroyProperty(const char* val);

/**
 * Asks to be called whenever a property changes. One handler per property: a second registration
 * replaces the first. What changes while none is registered is not told of later: who unregisters
 * and registers again reads the property then.
 *
 * @param handle    required
 * @param key       required; a property's name. A name without change events is accepted and
 *                  never called.
 * @param callback  called with each event of the property; null is accepted and drops the events
 * @param userData  passed to the callback
 */
ONDARO_EXPORT void OndaroApi_SystemConfig_RegisterEventHandler(
    OndaroApi_SystemConfig_h handle, const char* key, OndaroApi_SystemConfigEventCallback callback,
    void* userData);

/**
 * Ends a registration; the callback is not called again, whatever the settings store does.
 *
 * @param handle  required
 * @param key     required; the property's name
 */
ONDARO_EXPORT void OndaroApi_SystemConfig_UnregisterEventHandler(OndaroApi_SystemConfig_h handle,
                                                                 const char* key);

/* ---- Messaging: the application's end ----------------------------------------------------- */

/**
 * Called when the daemon sent an event.
 *
 * @param data      the event's data, valid during the call
 * @param userData  what was given at registration
 */
typedef void (*OndaroApi_IpcClientEventCallback)(const char* data, void* userData);

/**
 * Registers a callback for one event name. A second registration of the same name replaces the
 * first. However many names are registered, the client holds one subscription on the bus.
 *
 * @param handle    required
 * @param appEvt    required; the event's name, compared byte by byte; may be empty
 * @param callback  required
 * @param userData  passed to the callback
 */
ONDARO_EXPORT void OndaroApi_IpcClient_RegisterEventHandler(
    OndaroApi_IpcClient_h handle, const char* appEvt, OndaroApi_IpcClientEventCallback callback,
    void* userData);

/**
 * Removes every registered callback and stops listening. There is no removal of one name.
 *
 * @param handle  required
 */
ONDARO_EXPORT void OndaroApi_IpcClient_UnregisterEventHandler(OndaroApi_IpcClient_h handle);

/**
 * Sends an event to the daemon. The call does not wait: what became of it is known only to the
 * log, where its completion is written. What was sent before the process exits is handed to the
 * bus, as far as the bus takes it within half a second. The bus grants a connection 128 calls under
 * way at once; what it refuses beyond them is an error line of the completion.
 *
 * @param handle  required
 * @param appEvt  required; the event's name, UTF-8, may be empty
 * @param data    required; the event's data, UTF-8, may be empty. Name and data together must fit
 *                into the bus's message limit of 32 MiB.
 * @return 0 when the call was started, which says nothing of the daemon, present or not; -1 on
 *         failure, with nothing sent
 */
ONDARO_EXPORT int OndaroApi_IpcClient_SendDataToServer(OndaroApi_IpcClient_h handle,
                                                       const char* appEvt, const char* data);

/* ---- Messaging: the daemon's end ----------------------------------------------------------- */

/**
 * Called when an application sent an event. The application's call is answered when the callback
 * has returned.
 *
 * @param data      the event's data, valid during the call
 * @param userData  what was given at registration
 */
typedef void (*OndaroApi_IpcServerEventCallback)(const char* data, void* userData);

/**
 * Registers a callback for one event name. A second registration of the same name replaces the
 * first. Allowed at any time, also before the bus name is owned.
 *
 * @param handle    required
 * @param appEvt    required; the event's name, compared byte by byte; may be empty
 * @param callback  called for every such event; null is accepted and drops them
 * @param userData  passed to the callback
 */
ONDARO_EXPORT void OndaroApi_IpcServer_RegisterEventHandler(
    OndaroApi_IpcServer_h handle, const char* appEvt, OndaroApi_IpcServerEventCallback callback,
    void* userData);

/**
 * Removes every registered callback. There is no removal of one name.
 *
 * @param handle  required
 */
ONDARO_EXPORT void OndaroApi_IpcServer_UnregisterEventHandler(OndaroApi_IpcServer_h handle);

/**
 * Sends an event to every application that listens. There is no acknowledgement.
 *
 * @param handle  required
 * @param appEvt  required; the event's name, UTF-8, may be empty
 * @param data    required; the event's data, UTF-8, may be empty. Name and data together must fit
 *                into the bus's message limit of 32 MiB.
 * @return 0 when the event was handed to the bus or the bus refused it (an error line says so);
 *         -1 on failure, which includes a bus name that is not owned
 */
ONDARO_EXPORT int OndaroApi_IpcServer_SendDataToClient(OndaroApi_IpcServer_h handle,
                                                       const char* appEvt, const char* data);

/* ---- Device authentication ------------------------------------------------------------------ */

/**
 * Bytes that the library fills. Empty: null data and length 0. Filled: `length` bytes and one
 * zero byte that does not count; owned by the record until
 * OndaroApi_CoreAuth_DestroyCoreAuthInfo().
 */
typedef struct OndaroApi_CoreAuthInfoRW {
  char* data;      /**< the bytes */
  uint32_t length; /**< their number */
} OndaroApi_CoreAuthInfoRW_t;

/**
 * Bytes that the caller fills and keeps; the library only reads them. Null data with length 0
 * stands for no bytes; null data with another length is refused.
 */
typedef struct OndaroApi_CoreAuthInfoRO {
  const char* data; /**< the bytes */
  uint32_t length;  /**< their number */
} OndaroApi_CoreAuthInfoRO_t;

/**
 * Generates the device key and its certificate.
 *
 * @param handle  required
 * @param key     required; an empty record, filled on success
 * @param cert    required; an empty record, filled on success
 * @return true when both records were filled; otherwise false, both untouched. A record that is
 *         not empty is refused.
 */
ONDARO_EXPORT bool OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(OndaroApi_CoreAuth_h handle,
                                                               OndaroApi_CoreAuthInfoRW_t* key,
                                                               OndaroApi_CoreAuthInfoRW_t* cert);

/**
 * Signs a hash with the device key.
 *
 * @param handle  required
 * @param key     required; the device key as generated
 * @param hash    required; the hash to sign
 * @param sign    required; filled on success. What it held before is overwritten, not released.
 * @return true when `sign` was filled
 */
ONDARO_EXPORT bool OndaroApi_CoreAuth_SignHash(OndaroApi_CoreAuth_h handle,
                                               const OndaroApi_CoreAuthInfoRO_t* key,
                                               const OndaroApi_CoreAuthInfoRO_t* hash,
                                               OndaroApi_CoreAuthInfoRW_t* sign);

/**
 * The model's certificate chain. This platform delivers none: the record stays as it is.
 *
 * @param handle     required
 * @param certChain  required; left untouched
 * @return true
 */
ONDARO_EXPORT bool OndaroApi_CoreAuth_GetModelCertChain(OndaroApi_CoreAuth_h handle,
                                                        OndaroApi_CoreAuthInfoRW_t* certChain);

/**
 * Releases what the library put into a record and empties it. A record with null data is left
 * as it is.
 *
 * @param authInfo  required
 */
ONDARO_EXPORT void OndaroApi_CoreAuth_DestroyCoreAuthInfo(OndaroApi_CoreAuthInfoRW_t* authInfo);

#ifdef __cplusplus
}
#endif

#endif
