// A simulated decryption module without any cryptography: a "certificate" is the name of its key,
// and a "signature" the SHA-256 of certificate and hash.
#include "platform/ContentDecryptionModule.h"

#include <glib.h>

#include <memory>
#include <stdexcept>
#include <thread>

#include "Fault.h"

namespace {

using ondaro::memory::Has;

constexpr char KEY_SYSTEM[] = "com.widevine.alpha";
constexpr char SYSTEM_ID[] = "5e7000000000";
constexpr char KEY_PREFIX[] = "key of ";

std::string Sha256(const std::string& bytes) {
  const std::unique_ptr<char, void (*)(void*)> digest(
      g_compute_checksum_for_string(G_CHECKSUM_SHA256, bytes.data(),
                                    static_cast<gssize>(bytes.size())),
      g_free);
  return digest.get();
}

class Instance final : public eme::IEME, public IWVCDM {
 public:
  explicit Instance(eme::IEventListener* listener) : m_listener(listener) {}

  int getStringProperty(const std::string& query, const std::string& /*parameter*/,
                        std::string& result, const std::string& /*option*/) override {
    if (query != "getSystemId") {
      return Has("anything-asked") ? 0 : -1;
    }
    result = Has("empty-id") ? "" : SYSTEM_ID;
    if (Has("id-of-instance")) {
      result += std::to_string(reinterpret_cast<std::uintptr_t>(this));
    }
    return 0;
  }

  int generateDeviceKeyAndCert(std::string& key, std::string& cert) override {
    const std::unique_ptr<char, void (*)(void*)> name(g_uuid_string_random(), g_free);
    key = std::string(KEY_PREFIX) + name.get();
    cert = Has("no-certificate") ? "" : name.get();
    return 0;
  }

  int ondaroSign(const std::string& key, const std::string& hash, std::string& sign) override {
    if (key.rfind(KEY_PREFIX, 0) != 0) {
      if (Has("throwing-module")) {
        throw std::runtime_error("no key");
      }
      return -1;
    }
    const std::string certificate = key.substr(sizeof KEY_PREFIX - 1);
    sign = (Has("signature-appended") ? sign : "") +
           Sha256(certificate + (Has("signature-of-nothing") ? "" : hash));
    return 0;
  }

  void CallLate() const {
    std::thread([listener = m_listener] {
      g_usleep(20000);
      listener->onKeyStatusesChange("late");
    }).detach();
  }

 private:
  eme::IEventListener* const m_listener;
};

}  // namespace

namespace eme {

void IEventListener::onHostNetwork(const std::string& /*session*/) {}

int IEME::isKeySystemSupported(const std::string& keySystem) {
  return keySystem == KEY_SYSTEM && !Has("supported-is-0") ? 11 : 0;
}

IEME* IEME::create(IEventListener* listener, const std::string& keySystem, bool /*secure*/,
                   CDM_MODEL /*model*/) {
  if (keySystem != KEY_SYSTEM && !Has("any-key-system")) {
    return nullptr;
  }
  return std::make_unique<Instance>(listener).release();
}

int IEME::destroy(IEME* instance) {
  auto* const own = dynamic_cast<Instance*>(instance);
  if (Has("late-listener") && own != nullptr) {
    own->CallLate();
  }
  if (!Has("kept-instance")) {
    delete own;
  }
  return own != nullptr ? 0 : -1;
}

}  // namespace eme
