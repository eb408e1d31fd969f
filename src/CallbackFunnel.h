#ifndef ONDARO_SRC_CALLBACKFUNNEL_H
#define ONDARO_SRC_CALLBACKFUNNEL_H

#include "CallSite.h"

/// Where every exception ends that a callback from GLib or the settings store must not pass back
/// into C. To be called in a catch (...): logs what was caught, in the callback's name. The end of
/// the thread (pthread_exit(), cancellation) goes on.
void LogCaught(const SCallSite& site);

#endif
