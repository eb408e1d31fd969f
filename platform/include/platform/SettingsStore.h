/**
 * @file
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
 * SET-12  A node's string is the value of its own write, byte for byte, whatever came after it.
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
 * SET-28  Every write that returned 0 is one change, also the first of a key, one of the same
 *         value, and one of many that wait to be delivered.
 * SET-29  A key that does not exist can be subscribed.
 * SET-30  A process can hold at least 16 subscriptions.
 * SET-31  A text of up to 64 KiB at least, of any bytes but NUL, comes back as it was, in reads
 *         and in events, with the blanks and newlines at its ends.
 * SET-32  An integer read of a text fails, of "12" too.
 * SET-36  Callbacks come on the GLib main context that was the thread's default where the
 *         subscription was made: the library takes no lock.
 * SET-37  Reads, and subscriptions that have ended, leave no descriptor and no memory in use.
 * SET-38  Keys are told apart by every byte of their names.
 * SET-39  The keys that the library uses hold values of the library's kind, or none.
 *
 * Where processes share the store, as they do on a set:
 *
 * SET-24  What one process has written, every other process reads, also if the writer was killed.
 * SET-25  A change calls back the subscribers of every process.
 * SET-27  Changes of one key call back in the order of its writes, whichever process wrote.
 * SET-33  A key under `db/` outlasts a restart of the set.
 * SET-34  A key under `memory/` does not outlast a restart of the set.
 * SET-35  A read gives what was written last by any process, never an older value.
 * SET-40  While a key is written, a read gives its value before or after, whole.
 */
#ifndef ONDARO_PLATFORM_SETTINGS_STORE_H
#define ONDARO_PLATFORM_SETTINGS_STORE_H

#ifdef __cplusplus
extern "C" {
#endif

/** A change as a callback sees it. The store's own. */
typedef struct platform_settings_node platform_settings_node;

/**
 * Called when a key was written.
 *
 * @param node       the change, valid during the call
 * @param user_data  what was given at subscription
 */
typedef void (*platform_settings_changed_cb)(platform_settings_node* node, void* user_data);

/**
 * Reads a text.
 *
 * @param key  the key
 * @return a copy, to be released with free(); null when there is no text under the key
 */
char* platform_settings_get_string(const char* key);

/**
 * Writes a text.
 *
 * @param key    the key
 * @param value  copied
 * @return 0 on success
 */
int platform_settings_set_string(const char* key, const char* value);

/**
 * Reads an integer.
 *
 * @param key    the key
 * @param value  receives it; untouched on failure
 * @return 0 on success
 */
int platform_settings_get_int(const char* key, int* value);

/**
 * Writes an integer.
 *
 * @param key    the key
 * @param value  the integer
 * @return 0 on success
 */
int platform_settings_set_int(const char* key, int value);

/**
 * Reads an integer that stands for a flag.
 *
 * @param key    the key
 * @param value  receives the integer as it is; untouched on failure
 * @return 0 on success
 */
int platform_settings_get_bool(const char* key, int* value);

/**
 * Writes an integer that stands for a flag.
 *
 * @param key    the key
 * @param value  stored as it is
 * @return 0 on success
 */
int platform_settings_set_bool(const char* key, int value);

/**
 * The key that was written.
 *
 * @param node  as given to the callback
 * @return the key, owned by the node; null when it cannot be had
 */
const char* platform_settings_node_name(platform_settings_node* node);

/**
 * The text that was written.
 *
 * @param node  as given to the callback
 * @return the text, owned by the node; null when it was no text
 */
const char* platform_settings_node_string(platform_settings_node* node);

/**
 * The integer that was written.
 *
 * @param node  as given to the callback
 * @return the integer; -1 with `errno` set when it was none
 */
int platform_settings_node_int(platform_settings_node* node);

/**
 * Asks to be called whenever a key is written.
 *
 * @param key        the key, which need not exist
 * @param callback   called with each change; with the key it names the subscription
 * @param user_data  passed to the callback, never released
 * @return 0 on success
 */
int platform_settings_subscribe(const char* key, platform_settings_changed_cb callback,
                                void* user_data);

/**
 * Ends a subscription; the callback is not called again for that key.
 *
 * @param key       the key
 * @param callback  as subscribed
 * @return 0 on success; another number when this pair is not subscribed
 */
int platform_settings_unsubscribe(const char* key, platform_settings_changed_cb callback);

#ifdef __cplusplus
}
#endif

#endif
