/**
 * The set's application manager.
 *
 * Contract (each clause is checked against a port by the conformance kit):
 *
 * APP-01  platform_app_get_pid() returns the process id of the running application of that id.
 * APP-02  platform_app_get_pid() returns -1 when no running application has that id.
 * APP-03  platform_app_set_process_group() puts the caller into the application's process group
 *         and returns 0.
 * APP-04  platform_app_set_process_group() returns non-zero when the group cannot be set.
 * APP-05  Both may be called from any thread.
 */
#ifndef ONDARO_PLATFORM_APP_MANAGER_H
#define ONDARO_PLATFORM_APP_MANAGER_H

#ifdef __cplusplus
extern "C" {
#endif

int platform_app_get_pid(const char* app_id);
int platform_app_set_process_group(int app_pid, int caller_pid);

#ifdef __cplusplus
}
#endif

#endif
