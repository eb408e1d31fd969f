/**
 * @file
 * The set's application manager.
 *
 * Contract (each clause is checked against a port by the conformance kit):
 *
 * APP-01  platform_app_get_pid() returns the process id of the running application of that id.
 * APP-02  platform_app_get_pid() returns -1 when no running application has exactly that id.
 * APP-03  platform_app_set_process_group() puts the caller into the application's process group,
 *         whether or not the application leads it, and returns 0.
 * APP-04  platform_app_set_process_group() returns non-zero when the group cannot be set.
 * APP-05  Both may be called from any thread.
 */
#ifndef ONDARO_PLATFORM_APP_MANAGER_H
#define ONDARO_PLATFORM_APP_MANAGER_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The process of an application.
 *
 * @param app_id  the application's id
 * @return its process id; -1 when none runs
 */
int platform_app_get_pid(const char* app_id);

/**
 * Puts a process into an application's process group.
 *
 * @param app_pid     the application's process id, as platform_app_get_pid() gave it, -1 too
 * @param caller_pid  the process id of the caller, which is to join
 * @return 0 on success
 */
int platform_app_set_process_group(int app_pid, int caller_pid);

#ifdef __cplusplus
}
#endif

#endif
