#include "messaging/BusContract.h"

#include "ondaro/pal/CException.h"

namespace BusContract {

namespace {

constexpr std::size_t MESSAGE_LIMIT = std::size_t{32} * 1024 * 1024;
// Room for the header with its path, names and sender.
constexpr std::size_t HEADER_RESERVE = 1024;
// Each string carries a length, a final NUL and padding.
constexpr std::size_t STRING_OVERHEAD = 8;

void _RequireUtf8(const char* what, const std::string& text) {
  if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE) {
    throw NOndaroPAL::CInvalidCaseException(std::string(what) + " is not valid UTF-8");
  }
}

/// Not validated again, as g_variant_new_string() would.
GVariant* _MakeString(const std::string& text) {
  GBytes* bytes = g_bytes_new(text.c_str(), text.size() + 1);
  GVariant* string = g_variant_new_from_bytes(G_VARIANT_TYPE_STRING, bytes, TRUE);
  g_bytes_unref(bytes);
  return string;
}

}  // namespace

GVariant* MakeEvent(const std::string& appEvt, const std::string& data) {
  if (appEvt.size() + data.size() + 2 * STRING_OVERHEAD > MESSAGE_LIMIT - HEADER_RESERVE) {
    throw NOndaroPAL::CInvalidCaseException("event is too large for the bus");
  }
  _RequireUtf8("appEvt", appEvt);
  _RequireUtf8("data", data);
  GVariant* const strings[] = {_MakeString(appEvt), _MakeString(data)};
  return g_variant_new_tuple(strings, 2);
}

}  // namespace BusContract
