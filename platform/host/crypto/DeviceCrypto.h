#ifndef ONDARO_PLATFORM_HOST_DEVICECRYPTO_H
#define ONDARO_PLATFORM_HOST_DEVICECRYPTO_H

#include <string>

namespace ondaro::host {

/// What the decryption module has OpenSSL do. It is a library of its own, since most processes
/// never ask for an instance and should not pay for OpenSSL at their start.
///
/// Any thread may call, until the process has ended. `state` is the path of StateDirectory().
/// Throws what derives from std::exception.
class DeviceCrypto {
 public:
  virtual std::string SystemId(const std::string& state) const = 0;
  virtual void Generate(const std::string& state, std::string& key,
                        std::string& certificate) const = 0;
  virtual std::string Sign(const std::string& key, const std::string& digest) const = 0;

 protected:
  ~DeviceCrypto() = default;
};

/// Loads the library where that has not happened, and never unloads it. Throws std::runtime_error
/// that says what is missing.
const DeviceCrypto& LoadDeviceCrypto();

// What the library exports. The number changes with the class: a process that was started before an
// update finds the library of after it.
inline constexpr char DEVICE_CRYPTO_ENTRY[] = "ondaro_host_crypto_1";
extern "C" const DeviceCrypto* ondaro_host_crypto_1() noexcept;

}  // namespace ondaro::host

#endif
