// A set without a decryption module: it answers, and the answer is that there is none.
#include "platform/ContentDecryptionModule.h"

namespace eme {

void IEventListener::onHostNetwork(const std::string& /*session*/) {}

int IEME::isKeySystemSupported(const std::string& /*keySystem*/) { return 0; }

IEME* IEME::create(IEventListener* /*listener*/, const std::string& /*keySystem*/, bool /*secure*/,
                   CDM_MODEL /*model*/) {
  return nullptr;
}

int IEME::destroy(IEME* /*instance*/) { return -1; }

}  // namespace eme
