#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "Debug.h"
#include "api/ApiFrame.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALFactory.h"

namespace {

NOndaroAPI::CCoreAuth& GetClass(OndaroApi_CoreAuth_h handle) {
  return ApiFrame::WrapperOf<NOndaroAPI::CCoreAuth>(handle);
}

bool _IsEmpty(const OndaroApi_CoreAuthInfoRW_t& record) {
  return record.data == nullptr && record.length == 0;
}

/// Throws std::logic_error for null data with a length.
std::string _ToString(const OndaroApi_CoreAuthInfoRO_t& record) {
  return std::string(record.data, record.length);
}

/// The bytes and a zero byte that does not count.
std::unique_ptr<char[]> _BufferOf(const std::string& bytes) {
  std::unique_ptr<char[]> buffer(new char[bytes.size() + 1]);
  std::memcpy(buffer.get(), bytes.c_str(), bytes.size() + 1);
  return buffer;
}

void _Fill(OndaroApi_CoreAuthInfoRW_t& record, std::unique_ptr<char[]> buffer, std::size_t length) {
  record.data = buffer.release();
  record.length = static_cast<uint32_t>(length);
}

bool _GenerateDeviceKeyAndCert(OndaroApi_CoreAuth_h handle, OndaroApi_CoreAuthInfoRW_t& key,
                               OndaroApi_CoreAuthInfoRW_t& cert) {
  if (!_IsEmpty(key)) {
    API_LOG_RETURN_GUARD("key is not empty");
    return false;
  }
  if (!_IsEmpty(cert)) {
    API_LOG_RETURN_GUARD("cert is not empty");
    return false;
  }
  std::string keyBytes;
  std::string certBytes;
  if (!GetClass(handle).GenerateDeviceKeyAndCert(keyBytes, certBytes)) {
    return false;
  }
  // Both buffers first: a failed allocation leaves both records untouched.
  std::unique_ptr<char[]> keyBuffer = _BufferOf(keyBytes);
  std::unique_ptr<char[]> certBuffer = _BufferOf(certBytes);
  _Fill(key, std::move(keyBuffer), keyBytes.size());
  _Fill(cert, std::move(certBuffer), certBytes.size());
  return true;
}

bool _SignHash(OndaroApi_CoreAuth_h handle, const OndaroApi_CoreAuthInfoRO_t& key,
               const OndaroApi_CoreAuthInfoRO_t& hash, OndaroApi_CoreAuthInfoRW_t& sign) {
  NOndaroAPI::CCoreAuth& coreAuth = GetClass(handle);
  const std::string hashBytes = _ToString(hash);
  const std::string keyBytes = _ToString(key);
  std::string signBytes;
  if (!coreAuth.SignHash(keyBytes, hashBytes, signBytes)) {
    return false;
  }
  _Fill(sign, _BufferOf(signBytes), signBytes.size());
  return true;
}

}  // namespace

OndaroApi_CoreAuth_h OndaroFactory_GetCoreAuthHandle(void) {
  OndaroApi_CoreAuth_h handle = nullptr;
  ApiFrame::Guard(ONDARO_CALL_SITE, {}, [&] {
    handle = reinterpret_cast<OndaroApi_CoreAuth_h>(&NOndaroPAL::GetCoreAuth());
  });
  return handle;
}

bool OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(OndaroApi_CoreAuth_h handle,
                                                 OndaroApi_CoreAuthInfoRW_t* key,
                                                 OndaroApi_CoreAuthInfoRW_t* cert) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  bool generated = false;
  ApiFrame::Guard(ONDARO_CALL_SITE, {{"key", key}, {"cert", cert}},
                  [&] { generated = _GenerateDeviceKeyAndCert(handle, *key, *cert); });
  return generated;
}

bool OndaroApi_CoreAuth_SignHash(OndaroApi_CoreAuth_h handle, const OndaroApi_CoreAuthInfoRO_t* key,
                                 const OndaroApi_CoreAuthInfoRO_t* hash,
                                 OndaroApi_CoreAuthInfoRW_t* sign) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  bool isSigned = false;
  ApiFrame::Guard(ONDARO_CALL_SITE, {{"key", key}, {"hash", hash}, {"sign", sign}},
                  [&] { isSigned = _SignHash(handle, *key, *hash, *sign); });
  return isSigned;
}

bool OndaroApi_CoreAuth_GetModelCertChain(OndaroApi_CoreAuth_h handle,
                                          OndaroApi_CoreAuthInfoRW_t* certChain) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  bool given = false;
  ApiFrame::Guard(ONDARO_CALL_SITE, {{"certChain", certChain}},
                  [&] { given = GetClass(handle).GetModelCertChain(certChain); });
  return given;
}

void OndaroApi_CoreAuth_DestroyCoreAuthInfo(OndaroApi_CoreAuthInfoRW_t* authInfo) {
  ONDARO_API_CALL_TRACER tracer(__PRETTY_FUNCTION__);
  if (!ApiFrame::AllGiven(ONDARO_CALL_SITE, {{"authInfo", authInfo}}) ||
      authInfo->data == nullptr) {
    return;
  }
  delete[] authInfo->data;
  authInfo->data = nullptr;
  authInfo->length = 0;
}
