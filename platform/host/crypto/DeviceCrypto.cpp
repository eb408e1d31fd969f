#include "crypto/DeviceCrypto.h"

#include <dlfcn.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace ondaro::host {
namespace {

namespace fs = std::filesystem;

fs::path PathOfCrypto() {
  Dl_info backend{};
  dladdr(reinterpret_cast<void*>(&PathOfCrypto), &backend);
  std::error_code ignored;
  return fs::absolute(backend.dli_fname, ignored).parent_path() / ONDARO_HOST_CRYPTO;
}

/// Found out when the backend is loaded: by a relative path it is found only until the process
/// changes its directory. Never destroyed.
const fs::path& g_path = *new fs::path(PathOfCrypto());

void* Required(void* found) {
  if (found == nullptr) {
    throw std::runtime_error(dlerror());
  }
  return found;
}

}  // namespace

const DeviceCrypto& LoadDeviceCrypto() {
  void* const library = Required(dlopen(g_path.c_str(), RTLD_NOW | RTLD_LOCAL));
  void* const entry = Required(dlsym(library, DEVICE_CRYPTO_ENTRY));
  return *reinterpret_cast<decltype(&ondaro_host_crypto_1)>(entry)();
}

}  // namespace ondaro::host
