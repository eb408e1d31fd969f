// Any bytes as key, certificate, hash and signature, and any answer of the decryption module.

#include "Fuzz.h"
#include "library/FakePlatform.h"
#include "ondaro/OndaroApi.h"

using namespace ondaro::fuzz;

namespace {

/// The bytes of a record that the library filled; it is empty afterwards.
std::string Take(OndaroApi_CoreAuthInfoRW_t& record) {
  Expect(record.data != nullptr && record.data[record.length] == '\0', "a final NUL");
  std::string bytes(record.data, record.length);
  OndaroApi_CoreAuth_DestroyCoreAuthInfo(&record);
  Expect(record.data == nullptr && record.length == 0, "an empty record");
  return bytes;
}

}  // namespace

void ondaro::fuzz::Run(Input input) {
  static const OndaroApi_CoreAuth_h handle = OndaroFactory_GetCoreAuthHandle();
  FakePlatform& fake = FakePlatform::Get();
  fake.m_operationStatus = static_cast<int>(input.Number(8)) / 7;
  fake.m_key = input.Text();
  fake.m_cert = input.Text();
  fake.m_sign = input.Text();

  OndaroApi_CoreAuthInfoRW_t key = {}, cert = {}, sign = {};
  const bool isWorking = fake.m_operationStatus == 0;
  const bool isGenerated = OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(handle, &key, &cert);
  Expect(isGenerated == (isWorking && !fake.m_key.empty() && !fake.m_cert.empty()), "generation");
  if (isGenerated) {
    Expect(Take(key) == fake.m_key && Take(cert) == fake.m_cert, "its bytes");
  }

  const std::string keyBytes = input.Text(), hashBytes = input.Rest();
  const OndaroApi_CoreAuthInfoRO_t signKey = {keyBytes.data(),
                                              static_cast<std::uint32_t>(keyBytes.size())};
  const OndaroApi_CoreAuthInfoRO_t hash = {hashBytes.data(),
                                           static_cast<std::uint32_t>(hashBytes.size())};
  const bool isSigned = OndaroApi_CoreAuth_SignHash(handle, &signKey, &hash, &sign);
  Expect(isSigned == (isWorking && !fake.m_sign.empty()), "signing");
  Expect(fake.m_cdmCalls.back() == "sign[" + keyBytes + "][" + hashBytes + "][]",
         "the module gets the bytes");
  if (isSigned) {
    Expect(Take(sign) == fake.m_sign, "its bytes");
  }
  fake.m_cdmCalls.clear();
  fake.TakeLog();
}
