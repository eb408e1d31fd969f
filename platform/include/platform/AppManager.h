/**
 * The set's application manager.
 *
 * Contract (each clause is checked against a port by the conformance kit):
 *
 * APP-01  The process id of a running application, found by its application id.
 * APP-02  -1 for an application id that no running process answers to.
 * APP-03  Puts the caller into the application's process group and returns 0.
 * APP-04  Returns non-zero when the process group cannot be set.
 * APP-05  May be called from any thread.
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
