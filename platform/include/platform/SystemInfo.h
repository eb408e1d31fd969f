/**
 * @file
 * The set's fixed features.
 *
 * Contract (each clause is checked against a port by the conformance kit):
 *
 * SYS-01  A feature the set has, by its key: returns 0 and fills `*value`.
 * SYS-02  A feature the set does not have, by its whole key: returns non-zero.
 * SYS-03  May be called from any thread.
 * SYS-04  The set has the features that the library asks for.
 */
#ifndef ONDARO_PLATFORM_SYSTEM_INFO_H
#define ONDARO_PLATFORM_SYSTEM_INFO_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Reads a feature.
 *
 * @param key    the feature's key
 * @param value  receives its value; untouched on failure
 * @return 0 on success
 */
int platform_system_info_get_custom_int(const char* key, int* value);

#ifdef __cplusplus
}
#endif

#endif
