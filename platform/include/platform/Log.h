/**
 * @file
 * The set's log.
 *
 * Contract (each clause is checked against a port by the conformance kit):
 *
 * LOG-01  One call is one message.
 * LOG-02  A message for buffer 0 goes to the main buffer.
 * LOG-03  A message keeps its priority: 3 is debug, 4 is info, 6 is error.
 * LOG-04  `format` and the arguments follow printf; the text logged is the formatted text.
 * LOG-05  A call never blocks for long, whatever the sink does.
 * LOG-06  A call never fails the caller: no signal, no exit, no exception, whatever the sink does.
 * LOG-07  Calls may come from any thread at the same time; messages are not mixed.
 * LOG-08  A message keeps its tag.
 * LOG-09  A message of 4 KiB is logged whole.
 * LOG-10  A newline within a message or at its end is kept, as itself or in a form of the port's.
 * LOG-11  The messages of one thread keep their order.
 * LOG-12  Messages that have been logged leave no descriptor and no memory in use.
 *
 * The result is for the port's own use; the library ignores it.
 */
#ifndef ONDARO_PLATFORM_LOG_H
#define ONDARO_PLATFORM_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)

/**
 * Has the compiler check the arguments of a function like printf.
 *
 * @param format_index    the position of its format, from 1
 * @param first_argument  the position of the format's first argument
 */
#define ONDARO_PLATFORM_PRINTF(format_index, first_argument) \
  __attribute__((format(printf, format_index, first_argument)))
#else
#define ONDARO_PLATFORM_PRINTF(format_index, first_argument)
#endif

/**
 * Writes one message.
 *
 * @param buffer    0, the main buffer
 * @param priority  3, 4 or 6: debug, info, error
 * @param tag       names the writing layer
 * @param format    of the message and what follows it, as for printf
 * @return the port's own matter
 */
int platform_log_print(int buffer, int priority, const char* tag, const char* format, ...)
    ONDARO_PLATFORM_PRINTF(4, 5);

#ifdef __cplusplus
}
#endif

#endif
