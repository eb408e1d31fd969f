#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <mutex>

#include "Judging.h"
#include "Probes.h"
#include "platform/ContentDecryptionModule.h"

namespace conformance {
namespace {

constexpr char KEY_SYSTEM[] = "com.widevine.alpha";
constexpr char NO_KEY_SYSTEM[] = "conformance.no-such-key-system";
constexpr int SUPPORTED = 11;
constexpr char SYSTEM_ID_QUERY[] = "getSystemId";
constexpr char SYSTEM_ID_PARAMETER[] = " ";

class Listener : public eme::IEventListener {
 public:
  void onMessage(const std::string&, const eme::MessageType&, const std::string&) override {
    Note();
  }
  void onKeyStatusesChange(const std::string&) override { Note(); }
  void onRemoveComplete(const std::string&) override { Note(); }

  void Close() { m_isOpen = false; }
  int LateCalls() const { return m_lateCalls; }

 private:
  void Note() { m_lateCalls += m_isOpen ? 0 : 1; }

  std::atomic<bool> m_isOpen{true};
  std::atomic<int> m_lateCalls{0};
};

/// Called late by a broken module, they must still be there.
Listener& NewListener() {
  static std::mutex mutex;
  static std::vector<std::unique_ptr<Listener>> listeners;
  const std::lock_guard lock(mutex);
  return *listeners.emplace_back(std::make_unique<Listener>());
}

class Instance {
 public:
  Instance()
      : m_listener(NewListener()),
        m_eme(eme::IEME::create(&m_listener, KEY_SYSTEM, false, eme::CDM_MODEL_ONDARO)) {}
  ~Instance() { Destroy(); }
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;

  eme::IEME* Get() const { return m_eme; }
  IWVCDM* Keys() const { return dynamic_cast<IWVCDM*>(m_eme); }
  const Listener& ItsListener() const { return m_listener; }

  int Destroy() {
    const int status = m_eme != nullptr ? eme::IEME::destroy(m_eme) : 0;
    m_eme = nullptr;
    m_listener.Close();
    return status;
  }

 private:
  Listener& m_listener;
  eme::IEME* m_eme;
};

bool IsModuleDeclared() { return TheContext().declaration.IsYes(keys::DECRYPTION_MODULE); }

void NeedsModule() {
  if (!IsModuleDeclared()) {
    Absent("there is no decryption module");
  }
  Needs("CDM-01", eme::IEME::isKeySystemSupported(KEY_SYSTEM) == SUPPORTED,
        "the key system is not supported");
}

void NeedsInstance(const Instance& instance) {
  Needs("CDM-02", instance.Get() != nullptr, "there is no instance");
}

/// Absent, too, where the module cannot generate keys and says so.
void NeedsKeys(const Instance& instance) {
  NeedsInstance(instance);
  if (!TheContext().declaration.IsYes(keys::DEVICE_KEYS)) {
    EXPECT_EQ(instance.Keys(), nullptr) << "false declaration: the module implements IWVCDM";
    Absent("the module generates no keys");
  }
  Needs("CDM-06", instance.Keys() != nullptr, "the instance has no IWVCDM");
}

std::string SystemId(eme::IEME& instance) {
  std::string id = "(not filled)";
  const int status = instance.getStringProperty(SYSTEM_ID_QUERY, SYSTEM_ID_PARAMETER, id, "");
  return status == 0 ? id : "(failed)";
}

struct DeviceKey {
  std::string key;
  std::string certificate;
};

DeviceKey Generate(IWVCDM& module) {
  DeviceKey made;
  const int status = module.generateDeviceKeyAndCert(made.key, made.certificate);
  Needs("CDM-07", status == 0 && !made.key.empty(), "no key was generated");
  return made;
}

/// What a signature is of is for the port's own means to say; the seam does not know its form.
bool IsVerified(const DeviceKey& key, const std::string& hash, const std::string& signature) {
  const std::string directory = TheContext().scratch;
  const std::pair<const char*, const std::string&> files[] = {
      {"certificate", key.certificate}, {"hash", hash}, {"signature", signature}};
  Placeholders paths;
  for (const auto& [name, bytes] : files) {
    paths[name] = directory + "/" + name;
    std::ofstream(paths[name], std::ios::binary) << bytes;
  }
  return RunShell(Fill(Declared(keys::SIGNATURE_VERIFY), TheContext().WithScratch(paths)))
      .Succeeded();
}

}  // namespace

bool probes::AnswerSystemId(const Arguments& /*arguments*/) {
  const Instance instance;
  Answer(instance.Get() != nullptr ? SystemId(*instance.Get()) : "(no instance)");
  return true;
}

TEST(Decryption, CDM_01_Status11IsASupportedKeySystem) {
  EXPECT_NE(eme::IEME::isKeySystemSupported(NO_KEY_SYSTEM), SUPPORTED);
  EXPECT_NE(eme::IEME::isKeySystemSupported(""), SUPPORTED);
  if (IsModuleDeclared()) {
    EXPECT_EQ(eme::IEME::isKeySystemSupported(KEY_SYSTEM), SUPPORTED);
  } else {
    EXPECT_NE(eme::IEME::isKeySystemSupported(KEY_SYSTEM), SUPPORTED)
        << "false declaration: there is a decryption module";
  }
}

TEST(Decryption, CDM_02_CreateGivesANewInstanceOrNull) {
  Listener& listener = NewListener();
  EXPECT_EQ(eme::IEME::create(&listener, NO_KEY_SYSTEM, false, eme::CDM_MODEL_ONDARO), nullptr)
      << "for a key system that is not supported";
  if (!IsModuleDeclared()) {
    EXPECT_EQ(Instance().Get(), nullptr) << "false declaration: there is a decryption module";
    return;
  }
  NeedsModule();
  const Instance one;
  const Instance two;
  EXPECT_NE(one.Get(), nullptr);
  EXPECT_NE(two.Get(), nullptr);
  EXPECT_NE(one.Get(), two.Get());
}

TEST(Decryption, CDM_03_DestroyReleasesTheInstance) {
  NeedsModule();
  for (int i = 0; i < 3; ++i) {
    Instance instance;
    NeedsInstance(instance);
    EXPECT_EQ(instance.Destroy(), 0);
  }
}

TEST(Decryption, CDM_04_AStringPropertyIsFilled) {
  NeedsModule();
  const Instance instance;
  NeedsInstance(instance);
  std::string result = "(not filled)";
  EXPECT_EQ(instance.Get()->getStringProperty(SYSTEM_ID_QUERY, SYSTEM_ID_PARAMETER, result, ""), 0);
  EXPECT_NE(result, "(not filled)");
}

TEST(Decryption, CDM_05_TheSystemIdIsTheSets) {
  NeedsModule();
  const Instance one;
  const Instance two;
  NeedsInstance(one);
  NeedsInstance(two);
  const std::string id = SystemId(*one.Get());
  Needs("CDM-04", id != "(failed)", "the query failed");
  EXPECT_EQ(SystemId(*two.Get()), id);
  EXPECT_EQ(RunProcess(Probe({probes::SYSTEM_ID})).output, id + "\n") << "in another process";
}

TEST(Decryption, CDM_06_AKeyGeneratorIsFoundByDynamicCast) {
  NeedsModule();
  const Instance instance;
  NeedsInstance(instance);
  if (TheContext().declaration.IsYes(keys::DEVICE_KEYS)) {
    EXPECT_NE(instance.Keys(), nullptr);
  } else {
    NeedsKeys(instance);
  }
}

TEST(Decryption, CDM_07_KeyAndCertificateAreFilled) {
  NeedsModule();
  const Instance instance;
  NeedsKeys(instance);
  std::string key;
  std::string certificate;
  EXPECT_EQ(instance.Keys()->generateDeviceKeyAndCert(key, certificate), 0);
  EXPECT_FALSE(key.empty()) << "the key";
  EXPECT_FALSE(certificate.empty()) << "the certificate";
}

TEST(Decryption, CDM_08_ASignatureIsOfTheHash) {
  NeedsModule();
  const Instance instance;
  NeedsKeys(instance);
  const DeviceKey key = Generate(*instance.Keys());
  const std::string hash = "0123456789abcdef0123456789abcdef";
  const std::string otherHash = "0123456789abcdef0123456789abcdeX";
  std::string signature;
  ASSERT_EQ(instance.Keys()->ondaroSign(key.key, hash, signature), 0);
  ASSERT_FALSE(signature.empty());
  EXPECT_TRUE(IsVerified(key, hash, signature));
  EXPECT_FALSE(IsVerified(key, otherHash, signature)) << "it verifies as one of another hash too";
}

TEST(Decryption, CDM_09_AFailureIsNonZeroAndThrowsNothing) {
  NeedsModule();
  const Instance instance;
  NeedsInstance(instance);
  std::string result;
  EXPECT_NO_THROW(
      EXPECT_NE(instance.Get()->getStringProperty("conformance", "no such query", result, ""), 0));
  EXPECT_NO_THROW(
      EXPECT_EQ(eme::IEME::create(nullptr, NO_KEY_SYSTEM, false, eme::CDM_MODEL_ONDARO), nullptr));
  if (instance.Keys() != nullptr) {
    EXPECT_NO_THROW(EXPECT_NE(instance.Keys()->ondaroSign("no key at all", "", result), 0));
  }
}

TEST(Decryption, CDM_10_TheListenerIsNotCalledAfterDestroy) {
  NeedsModule();
  Instance instance;
  NeedsInstance(instance);
  SystemId(*instance.Get());
  Needs("CDM-03", instance.Destroy() == 0, "an instance could not be destroyed");
  const Instance next;
  NeedsInstance(next);
  SystemId(*next.Get());
  EXPECT_EQ(instance.ItsListener().LateCalls(), 0);
}

TEST(Decryption, CDM_11_AnyThreadMayCall) {
  NeedsModule();
  const Instance instance;
  NeedsInstance(instance);
  const std::string id = SystemId(*instance.Get());
  for (const std::string& answer : FromManyThreads([&] { return SystemId(*instance.Get()); })) {
    EXPECT_EQ(answer, id) << "of one instance";
  }
  for (const std::string& answer : FromManyThreads([] {
         const Instance own;
         return own.Get() != nullptr ? SystemId(*own.Get()) : "(no instance)";
       })) {
    EXPECT_EQ(answer, id) << "of an instance of the thread's own";
  }
}

TEST(Decryption, CDM_12_OnHostNetworkHasAnEmptyBody) {
  Listener listener;
  listener.eme::IEventListener::onHostNetwork("session");
  EXPECT_EQ(listener.LateCalls(), 0);
}

}  // namespace conformance
