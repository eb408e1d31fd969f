// Device authentication where the model does not reach: records that no call of the library filled,
// and the lives of the adapter over the decryption module.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "FakePlatform.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALFactory.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

class CoreAuth : public ::testing::Test {
 protected:
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
    EXPECT_FALSE(OndaroApi_CoreAuth_SignHash(m_auth, &key, &hash, &m_sign));
    EXPECT_EQ(ErrorLine(),
              "6 ONDARO_API OndaroApi_CoreAuth_SignHash: exception : basic_string: construction "
              "from null is not valid");
  }
  EXPECT_THAT(m_fake.m_cdmCalls, IsEmpty());
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
