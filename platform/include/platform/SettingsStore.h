/**
 * The set's settings store: text and integer values under slash-separated keys, with change
 * notification.
 *
 * Contract (each clause is checked against a port by the conformance kit):
 *
 * SET-01  A string read returns a newly allocated, NUL-terminated copy of the value.
 * SET-02  The caller releases a string read with free().
 * SET-03  A string read of a missing key returns null.
 * SET-04  A string read of a key that holds no string returns null.
 * SET-05  A string write returns 0 on success, after which the key holds the whole value.
 * SET-06  An integer read returns 0 on success and fills `*value`.
 * SET-07  An integer read that fails returns non-zero and leaves `*value` untouched.
 * SET-08  An integer write returns 0 on success, after which the key holds the value.
 * SET-09  A boolean read returns 0 on success and fills `*value` with the stored integer as it is.
 * SET-10  A boolean write returns 0 on success and stores the integer given as it is.
 * SET-11  A node's name is the changed key; null only when it cannot be had.
 * SET-12  A node's string is the new value, byte for byte.
 * SET-13  A node's string is null when the new value is no string.
 * SET-14  A node's integer is the new value; `errno` is left alone on success, also for -1.
 * SET-15  A node's integer is -1 with `errno` set when the new value is no integer.
 * SET-16  A node and what is read from it belong to the store and are valid during the callback.
 * SET-17  A subscription returns 0 on success, after which each change of the key calls back once.
 * SET-18  `user_data` comes back unchanged as the callback's second argument.
 * SET-19  The same key and callback again: returns 0, the newest `user_data` counts, and each
 *         change still calls back once.
 * SET-20  A subscription is identified by key and callback; unsubscribing it returns 0.
 * SET-21  Unsubscribing a pair that is not subscribed returns non-zero.
 * SET-22  Once an unsubscription returned, the callback is not called again for that key.
 * SET-23  Every function may be called from any thread.
 *
 * SET-26  A callback may call every function: read, write, subscribe, end its own subscription.
 *
 * Where a callback runs is the port's choice; a host program expects the thread-default GLib main
 * context in which it subscribed.
 *
 * Where processes share the store, as they do on a set:
 *
 * SET-24  What one process has written, every other process reads.
 * SET-25  A change calls back the subscribers of every process.
 */
#ifndef ONDARO_PLATFORM_SETTINGS_STORE_H
#define ONDARO_PLATFORM_SETTINGS_STORE_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct platform_settings_node platform_settings_node;

typedef void (*platform_settings_changed_cb)(platform_settings_node* node, void* user_data);

char* platform_settings_get_string(const char* key);
int platform_settings_set_string(const char* key, const char* value);
int platform_settings_get_int(const char* key, int* value);
int platform_settings_set_int(const char* key, int value);
int platform_settings_get_bool(const char* key, int* value);
int platform_settings_set_bool(const char* key, int value);

const char* platform_settings_node_name(platform_settings_node* node);
const char* platform_settings_node_string(platform_settings_node* node);
int platform_settings_node_int(platform_settings_node* node);

int platform_settings_subscribe(const char* key, platform_settings_changed_cb callback,
                                void* user_data);
int platform_settings_unsubscribe(const char* key, platform_settings_changed_cb callback);

#ifdef __cplusplus
}
#endif

#endif
