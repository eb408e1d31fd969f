#include <atomic>
#include <deque>
#include <memory>
#include <utility>

#include "../Question.h"
#include "platform/ContentDecryptionModule.h"

namespace conformance {
namespace {

constexpr int SUPPORTED = 11;
constexpr char HELD[] = "what the string held";
constexpr char HASH[] = "0123456789abcdef0123456789abcdef";
constexpr char OTHER_HASH[] = "0123456789abcdef0123456789abcdeX";

/// The one that the library asks for.
std::string KeySystem() { return AskedOfSets("key system").front().name; }

class Listener : public eme::IEventListener {
 public:
  void onMessage(const std::string&, const eme::MessageType&, const std::string&) override {
    ++m_calls;
  }
  void onKeyStatusesChange(const std::string&) override { ++m_calls; }
  void onRemoveComplete(const std::string&) override { ++m_calls; }
  void onHostNetwork(const std::string&) override { ++m_calls; }

  int Calls() const { return m_calls; }

 private:
  std::atomic<int> m_calls{0};
};

/// Called late by a broken module, one must still be there.
Listener& NewListener() {
  static std::deque<Listener>& all = *std::make_unique<std::deque<Listener>>().release();
  return all.emplace_back();
}

class Instance {
 public:
  explicit Instance(Listener& listener, const std::string& system = KeySystem())
      : m_eme(eme::IEME::create(&listener, system, false, eme::CDM_MODEL_ONDARO)) {}
  ~Instance() { Destroy(); }
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;

  eme::IEME* Get() const { return m_eme; }
  IWVCDM* Keys() const { return dynamic_cast<IWVCDM*>(m_eme); }
  int Destroy() {
    eme::IEME* const ended = std::exchange(m_eme, nullptr);
    return ended != nullptr ? eme::IEME::destroy(ended) : 0;
  }

 private:
  eme::IEME* m_eme;
};

Listener& Any() {
  static Listener& listener = NewListener();
  return listener;
}

bool IsModuleDeclared() { return Declares("decryption-module", "yes"); }

/// Absent where there is no module.
Instance TheInstance() {
  if (!IsModuleDeclared()) {
    Absent("'decryption-module' declares none");
  }
  Needs("CDM-02", Instance(Any()).Get() != nullptr, "there is no instance");
  return Instance(Any());
}

/// Absent, too, where the module cannot generate keys and says so.
IWVCDM& KeysOf(const Instance& instance) {
  const bool isDeclared = Declares("device-keys", "yes");
  Holds((instance.Keys() != nullptr) == isDeclared, "looked for IWVCDM by dynamic_cast",
        isDeclared ? "it is found" : "null: 'device-keys' declares none",
        isDeclared ? "null" : "it is found");
  if (!isDeclared) {
    Absent("'device-keys' declares none");
  }
  return *instance.Keys();
}

/// The system identifier, or that there is none.
std::string SystemId(eme::IEME* instance) {
  std::string id = HELD;
  const int status =
      instance != nullptr ? instance->getStringProperty("getSystemId", " ", id, "") : -1;
  return status == 0 ? Show(id) : "fails";
}

const Help SYSTEM_ID("system-id",
                     [](const Arguments& /*none*/) { Reply(SystemId(Instance(Any()).Get())); });

void IsFilled(const std::string& done, const std::string& came) {
  Holds(!came.empty() && came.find(HELD) == std::string::npos,
        done + ", into a string that held another text", "a result in its place", Show(came));
}

struct DeviceKey {
  explicit DeviceKey(IWVCDM& module) : status(module.generateDeviceKeyAndCert(key, certificate)) {}

  std::string key = HELD;
  std::string certificate = HELD;
  int status;
};

/// What a signature is of is for the port's own means to say; the seam does not know its form.
bool IsVerified(const DeviceKey& key, const std::string& hash, const std::string& signature) {
  const auto file = [](const std::string& bytes) {
    std::string path = NewFile();
    WriteFile(path, bytes);
    return path;
  };
  return DoesSucceed(Filled(Declared("signature.verify"), {{"hash", file(hash)},
                                                           {"certificate", file(key.certificate)},
                                                           {"signature", file(signature)}}));
}

const Question CDM_01("CDM-01", [] {
  const std::string own = KeySystem();
  for (const std::string& system : {own, own + "2", own.substr(0, own.size() - 1),
                                    std::string("conformance.none"), std::string()}) {
    const bool isExpected = system == own && IsModuleDeclared();
    const int status = eme::IEME::isKeySystemSupported(system);
    Holds((status == SUPPORTED) == isExpected, "asked for the key system " + Show(system),
          isExpected ? "11" : "another number than 11", Show(status));
  }
});

const Question CDM_02("CDM-02", [] {
  for (const std::string& system : {KeySystem(), std::string("conformance.none")}) {
    const bool isExpected = system == KeySystem() && IsModuleDeclared();
    const Instance instance(Any(), system);
    Holds((instance.Get() != nullptr) == isExpected, "created an instance of " + system,
          isExpected ? "an instance" : "null", isExpected ? "null" : "an instance");
  }
  const Instance one(Any());
  const Instance two(Any());
  Holds(!IsModuleDeclared() || one.Get() != two.Get(), "created two instances", "two",
        "the same twice");
});

const Question CDM_03("CDM-03", [] {
  Instance instance = TheInstance();
  Same("destroyed an instance: the status", 0, instance.Destroy());
  LeavesNothing("created an instance and destroyed it", [] { Instance other(Any()); });
});

const Question CDM_04("CDM-04", [] {
  Instance instance = TheInstance();
  std::string id = HELD;
  Same("asked for the system identifier: the status", 0,
       instance.Get()->getStringProperty("getSystemId", " ", id, ""));
  IsFilled("asked for the system identifier", id);
});

const Question CDM_05("CDM-05", [] {
  Instance instance = TheInstance();
  const Instance other(Any());
  const std::string id = SystemId(instance.Get());
  Same("asked an instance for the system identifier twice", id, SystemId(instance.Get()));
  Same("asked another instance for the system identifier", id, SystemId(other.Get()));
  Same("asked for the system identifier in another process", id, Ask("system-id"));
});

const Question CDM_06("CDM-06", [] { KeysOf(TheInstance()); });

const Question CDM_07("CDM-07", [] {
  const Instance instance = TheInstance();
  IWVCDM& keys = KeysOf(instance);
  const DeviceKey made(keys);
  Same("generated a key: the status", 0, made.status);
  IsFilled("generated a key; the key", made.key);
  IsFilled("generated a key; the certificate", made.certificate);
});

const Question CDM_08("CDM-08", [] {
  const Instance instance = TheInstance();
  IWVCDM& keys = KeysOf(instance);
  const DeviceKey own(keys);
  const DeviceKey other(keys);
  Needs("CDM-07", own.status == 0 && other.status == 0, "no key was generated");
  std::string signature = HELD;
  Same("signed a hash: the status", 0, keys.ondaroSign(own.key, HASH, signature));
  IsFilled("signed a hash", signature);
  Holds(IsVerified(own, HASH, signature), "verified a signature by 'signature.verify'",
        "it is of the hash, by the key's certificate", "it is not");
  Holds(!IsVerified(own, OTHER_HASH, signature), "verified it as one of another hash", "it is not",
        "it is");
  Holds(other.certificate == own.certificate || !IsVerified(other, HASH, signature),
        "verified it by another key's certificate", "it is not of that key", "it is");
});

const Question CDM_09("CDM-09", [] {
  Instance instance = TheInstance();
  std::string result;
  const auto fails = [](const std::string& done, const std::function<int()>& call) {
    try {
      Refuses(done, call());
    } catch (const std::exception&) {
      Holds(false, done, "a status other than 0", "an exception");
    }
  };
  fails("asked for a property that there is none of", [&] {
    return instance.Get()->getStringProperty("conformance", "no such query", result, "");
  });
  for (const char* const key : {"", "no key at all"}) {
    fails("signed with the key " + Show(key), [&, keys = instance.Keys()] {
      return keys != nullptr ? keys->ondaroSign(key, HASH, result) : -1;
    });
  }
});

const Question CDM_10("CDM-10", [] {
  const Instance other = TheInstance();
  std::vector<std::pair<Listener*, int>> ended;  // and the calls until then
  for (int i = 0; i < 8; ++i) {
    Listener& listener = NewListener();
    Instance instance(listener);
    SystemId(instance.Get());
    Needs("CDM-03", instance.Destroy() == 0, "an instance could not be destroyed");
    ended.emplace_back(&listener, listener.Calls());
    SystemId(other.Get());
    Settle();
  }
  for (const auto& [listener, calls] : ended) {
    Same("destroyed an instance; calls of its listener", calls, listener->Calls());
  }
});

const Question CDM_11("CDM-11", [] {
  Instance instance = TheInstance();
  const std::string id = SystemId(instance.Get());
  OnManyThreads([&] {
    Same("asked one instance for the system identifier", id, SystemId(instance.Get()));
    const Instance own(Any());
    Same("asked an own instance for the system identifier", id, SystemId(own.Get()));
  });
});

const Question CDM_12("CDM-12", [] {
  Listener listener;
  listener.eme::IEventListener::onHostNetwork("session");
  Same("called the module's onHostNetwork(); calls of the listener by it", 0, listener.Calls());
});

}  // namespace
}  // namespace conformance
