/**
 * @file
 * The set's power state.
 *
 * Contract (each clause is checked against a port by the conformance kit):
 *
 * POW-01  Returns the current power state; 0 and 1 are the usable ones.
 * POW-02  Returns a negative number when the state is unknown.
 * POW-03  May be called from any thread.
 */
#ifndef ONDARO_PLATFORM_DEVICE_POWER_H
#define ONDARO_PLATFORM_DEVICE_POWER_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The current power state.
 *
 * @return 0 or 1 when the set is usable, another number when not, a negative one when it is unknown
 */
int platform_power_get_state(void);

#ifdef __cplusplus
}
#endif

#endif
