// Device authentication: the adapter over the decryption module and the records of the C interface.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "FakePlatform.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALFactory.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

std::string TakeBytes(OndaroApi_CoreAuthInfoRW_t& record) {
  std::string bytes(record.data, record.length);
  EXPECT_EQ(record.data[record.length], '\0');
  OndaroApi_CoreAuth_DestroyCoreAuthInfo(&record);
  EXPECT_EQ(record.data, nullptr);
  EXPECT_EQ(record.length, 0U);
  OndaroApi_CoreAuth_DestroyCoreAuthInfo(&record);
  return bytes;
}

class CoreAuth : public ::testing::Test {
 protected:
  bool Generate() { return OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(m_auth, &m_key, &m_cert); }
  bool Sign(const OndaroApi_CoreAuthInfoRO_t& key, const OndaroApi_CoreAuthInfoRO_t& hash) {
    return OndaroApi_CoreAuth_SignHash(m_auth, &key, &hash, &m_sign);
  }
  std::string ErrorLine() {
    std::string error;
    for (const SLogEntry& entry : m_fake.TakeLog()) {
      error = entry.priority == 6 ? entry.Text() : error;
    }
    return error;
  }

  FakePlatform& m_fake = FakePlatform::Get();
  OndaroApi_CoreAuth_h m_auth = OndaroFactory_GetCoreAuthHandle();
  OndaroApi_CoreAuthInfoRW_t m_key = {nullptr, 0};
  OndaroApi_CoreAuthInfoRW_t m_cert = {nullptr, 0};
  OndaroApi_CoreAuthInfoRW_t m_sign = {nullptr, 0};
};

TEST_F(CoreAuth, KeyCertificateAndSignatureMayHoldAnyBytes) {
  m_fake.m_key = std::string("k\0ey", 4);
  m_fake.m_cert = std::string("\xFF\0", 2);
  m_fake.m_sign = std::string("\0", 1);
  ASSERT_TRUE(Generate());
  EXPECT_EQ(TakeBytes(m_key), m_fake.m_key);
  EXPECT_EQ(TakeBytes(m_cert), m_fake.m_cert);
  ASSERT_TRUE(Sign({m_fake.m_key.data(), 4}, {"h\0h", 3}));
  EXPECT_EQ(m_fake.m_cdmCalls.back(), std::string("sign[k\0ey][h\0h][]", 17));
  EXPECT_EQ(TakeBytes(m_sign), m_fake.m_sign);
  ASSERT_TRUE(Sign({"k", 1}, {nullptr, 0}));
  EXPECT_EQ(m_fake.m_cdmCalls.back(), "sign[k][][]");

  // A filled signature is overwritten; its old buffer stays the caller's.
  OndaroApi_CoreAuthInfoRW_t old = m_sign;
  m_fake.m_sign = "new";
  ASSERT_TRUE(Sign({"k", 1}, {"h", 1}));
  EXPECT_NE(old.data, m_sign.data);
  EXPECT_EQ(TakeBytes(m_sign), "new");
  TakeBytes(old);
}

TEST_F(CoreAuth, RecordsThatAreNotEmptyAreRefusedBeforeTheHandleIsLookedAt) {
  char byte = 'x';
  const OndaroApi_CoreAuthInfoRW_t filled[] = {{&byte, 1}, {&byte, 0}, {nullptr, 1}};
  for (const OndaroApi_CoreAuthInfoRW_t& record : filled) {
    OndaroApi_CoreAuthInfoRW_t copy = record;
    EXPECT_FALSE(OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(nullptr, &copy, &m_cert));
    EXPECT_EQ(ErrorLine(), "6 ONDARO_API _GenerateDeviceKeyAndCert: return by [key is not empty]");
    EXPECT_FALSE(OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(nullptr, &m_key, &copy));
    EXPECT_EQ(ErrorLine(), "6 ONDARO_API _GenerateDeviceKeyAndCert: return by [cert is not empty]");
    EXPECT_EQ(copy.data, record.data);
    EXPECT_EQ(copy.length, record.length);
  }
  OndaroApi_CoreAuthInfoRW_t lengthOnly = {nullptr, 9};
  OndaroApi_CoreAuth_DestroyCoreAuthInfo(&lengthOnly);
  EXPECT_EQ(lengthOnly.length, 9U);
  EXPECT_TRUE(OndaroApi_CoreAuth_GetModelCertChain(m_auth, &lengthOnly));
  EXPECT_EQ(lengthOnly.length, 9U);
}

TEST_F(CoreAuth, ANullReadOnlyRecordWithALengthIsALogicError) {
  m_fake.m_cdmCalls.clear();
  const OndaroApi_CoreAuthInfoRO_t good = {"x", 1};
  const OndaroApi_CoreAuthInfoRO_t bad = {nullptr, 1};
  for (const auto& [key, hash] : {std::pair(good, bad), std::pair(bad, good)}) {
    EXPECT_FALSE(Sign(key, hash));
    EXPECT_EQ(ErrorLine(),
              "6 ONDARO_API OndaroApi_CoreAuth_SignHash: exception : basic_string: construction "
              "from null is not valid");
  }
  EXPECT_THAT(m_fake.m_cdmCalls, IsEmpty());
}

TEST_F(CoreAuth, FailuresOfTheModuleLeaveTheRecordsUntouched) {
  const auto expectFailure = [this](const char* generateError, const char* signError) {
    EXPECT_FALSE(Generate());
    EXPECT_EQ(ErrorLine(), std::string("6 ONDARO_API ") + generateError);
    EXPECT_FALSE(Sign({"k", 1}, {"h", 1}));
    EXPECT_EQ(ErrorLine(), std::string("6 ONDARO_API ") + signError);
    EXPECT_EQ(m_key.data, nullptr);
    EXPECT_EQ(m_cert.data, nullptr);
    EXPECT_EQ(m_sign.data, nullptr);
  };
  m_fake.m_operationStatus = 3;
  expectFailure("_GenerateDeviceKeyAndCert: GenerateDeviceKeyAndCert failed.",
                "_SignHash: ondaroSign failed.");
  m_fake.m_operationStatus = 0;
  m_fake.m_cert = m_fake.m_sign = "";
  expectFailure("_GenerateDeviceKeyAndCert: return by [cert.empty()]", "_SignHash: sign is empty");
  m_fake.m_key = "";
  expectFailure("_GenerateDeviceKeyAndCert: return by [key.empty()]", "_SignHash: sign is empty");
  m_fake.m_onCdmCall = [] { throw std::runtime_error("module"); };
  expectFailure("OndaroApi_CoreAuth_GenerateDeviceKeyAndCert: exception : module",
                "OndaroApi_CoreAuth_SignHash: exception : module");
}

TEST_F(CoreAuth, StringsToBeFilledAreHandedOverAsTheyAre) {
  std::string key = "k0";
  std::string cert = "c0";
  std::string sign = "s0";
  NOndaroAPI::CCoreAuth& wrapper = NOndaroPAL::GetCoreAuth();
  m_fake.m_cdmCalls.clear();
  EXPECT_TRUE(wrapper.GenerateDeviceKeyAndCert(key, cert));
  EXPECT_TRUE(wrapper.SignHash("k", "h", sign));
  EXPECT_THAT(m_fake.m_cdmCalls, ElementsAre("generate[k0][c0]", "sign[k][h][s0]"));
}

// A life with and without an instance, over implementation objects of its own.
TEST(CoreAuthLife, TellsInTheLogWhatBecameOfTheInstance) {
  FakePlatform& fake = FakePlatform::Get();
  const auto live = [&fake](bool answers) {
    fake.TakeLog();
    std::unique_ptr<NOndaroAPI::ICoreAuthImpl> impl(NOndaroPAL::CPALFactory::CreateCoreAuthImpl());
    std::string key;
    std::string id = "before";
    EXPECT_EQ(impl->GenerateDeviceKeyAndCert(key, key), answers && fake.m_hasKeyInterface);
    EXPECT_EQ(impl->SignHash("k", "h", key), answers && fake.m_hasKeyInterface);
    EXPECT_EQ(impl->GetSystemID(id), answers);
    EXPECT_EQ(id, answers ? "system-id" : "before");
    EXPECT_TRUE(impl->GetModelCertChain(nullptr));
    impl.reset();
    std::vector<std::string> lines;
    for (const SLogEntry& entry : fake.TakeLog()) {
      if (entry.tag == "ONDARO_API") {
        lines.push_back(entry.function + ": " + entry.body);
      } else {
        EXPECT_THAT(entry.function, MatchesRegex("~?ONDAROCALLTRACE"));
      }
    }
    return lines;
  };
  const auto created = MatchesRegex("CCoreAuthImpl: EME instance = \\[.*\\] ,created. ");
  const std::string noKeys = "_GenerateDeviceKeyAndCert: pWVCDM is NULL";
  const std::string noSign = "_SignHash: pWVCDM is NULL";
  const std::string noId = "GetSystemID: cdm_ is NULL";
  const std::string destroyed = "~CCoreAuthImpl: eme instance destroyed";

  EXPECT_THAT(live(true), ElementsAre(created, destroyed));
  fake.m_destroyStatus = 4;
  EXPECT_THAT(
      live(true),
      ElementsAre(created, "~CCoreAuthImpl: eme::IEME::destroy() return error[4]", destroyed));
  fake.m_destroyStatus = 0;
  fake.m_hasKeyInterface = false;
  EXPECT_THAT(live(true), ElementsAre(created, noKeys, noSign, destroyed));
  fake.m_isCreateFailing = true;
  EXPECT_THAT(live(false),
              ElementsAre("CCoreAuthImpl: EME instance create Fail!", noKeys, noSign, noId));
  for (const int status : {0, 1, -11, 12}) {
    fake.m_supportStatus = status;
    EXPECT_THAT(live(false),
                ElementsAre("CCoreAuthImpl: Key system[com.widevine.alpha] is not supported.",
                            noKeys, noSign, noId));
  }
}

}  // namespace
