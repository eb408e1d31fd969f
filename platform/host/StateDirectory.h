#ifndef ONDARO_PLATFORM_HOST_STATEDIRECTORY_H
#define ONDARO_PLATFORM_HOST_STATEDIRECTORY_H

#include <string>

namespace ondaro::host {

/// The directory of everything that the backend keeps: $ONDARO_HOST_STATE, else
/// $XDG_STATE_HOME/ondaro, else ~/.local/state/ondaro; /var/lib/ondaro for root without HOME.
///
/// Absolute, made (mode 0700) where it is missing. Empty with `errno` set when it cannot be made.
std::string StateDirectory();

/// The directory of what lives until the next boot: `run` within $ONDARO_HOST_STATE when that is
/// set, so that a test leaves nothing elsewhere; else $XDG_RUNTIME_DIR/ondaro, else /run/ondaro.
///
/// Its last part is the kernel's boot id, since not each of these is emptied by a reboot; what an
/// earlier boot left beside it is removed. Made and reported as StateDirectory() is.
std::string RuntimeDirectory();

}  // namespace ondaro::host

#endif
