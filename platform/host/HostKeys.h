#ifndef ONDARO_PLATFORM_HOST_HOSTKEYS_H
#define ONDARO_PLATFORM_HOST_HOSTKEYS_H

namespace ondaro::host::keys {

// The settings keys that make up the simulated set.

// Text, for reading: where all of it is kept.
inline constexpr char STATE_DIRECTORY[] = "host/state-directory";

// Followed by a feature's key. Integer: the feature's value; a missing key is a missing feature.
inline constexpr char SYSTEM_INFO_PREFIX[] = "host/system-info/";

// Integer: the power state. Missing: 0, a machine that runs is in a usable state.
// Text: the state is unknown.
inline constexpr char POWER_STATE[] = "host/power/state";

// Followed by an application id. Integer: the application's process id. Text: the name of its
// process. Missing: its process is named like the application id.
inline constexpr char APPLICATION_PREFIX[] = "host/app/";

// Faults of the decryption module, one key an operation, each a text. Missing, or any other text:
// no fault. Looked up at each call; CDM_DESTROY when the instance is created.
inline constexpr char CDM_KEY_SYSTEM[] = "host/cdm/key-system";  // "unsupported"
inline constexpr char CDM_CREATE[] = "host/cdm/create";          // "fail", "without-keys"
inline constexpr char CDM_DESTROY[] = "host/cdm/destroy";        // "fail"
inline constexpr char CDM_GENERATE[] = "host/cdm/generate";    // "fail", "empty-key", "empty-cert"
inline constexpr char CDM_SIGN[] = "host/cdm/sign";            // "fail", "empty"
inline constexpr char CDM_SYSTEM_ID[] = "host/cdm/system-id";  // "fail", "empty"

inline constexpr char FAULT_UNSUPPORTED[] = "unsupported";
inline constexpr char FAULT_FAIL[] = "fail";
inline constexpr char FAULT_WITHOUT_KEYS[] = "without-keys";
inline constexpr char FAULT_EMPTY[] = "empty";
inline constexpr char FAULT_EMPTY_KEY[] = "empty-key";
inline constexpr char FAULT_EMPTY_CERT[] = "empty-cert";

}  // namespace ondaro::host::keys

#endif
