#include "text/Json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>
#include <sstream>

#include "support/GLibOwner.h"
#include "text/Text.h"

namespace ondaro::ctl {
namespace {

/// Making it takes longer than writing an object.
std::unique_ptr<Json::StreamWriter> MakeCompactWriter() {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
}

}  // namespace

Json::Value JsonObject(std::initializer_list<std::pair<const char*, Json::Value>> members) {
  Json::Value object(Json::objectValue);
  for (const auto& [name, value] : members) {
    object[name] = value;
  }
  return object;
}

std::string CompactJson(const Json::Value& object) {
  static const std::unique_ptr<Json::StreamWriter> WRITER = MakeCompactWriter();
  std::ostringstream text;
  WRITER->write(object, &text);
  return SafeJson(text.str());
}

Json::Value JsonText(std::string_view bytes) {
  if (bytes.empty()) {
    return "";
  }
  const GLibText valid(g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size())));
  return valid.get();
}

Json::Value JsonOrNull(const std::optional<std::string>& bytes) {
  return bytes ? JsonText(*bytes) : Json::Value();
}

std::optional<Json::Value> ParseJsonObject(std::string_view text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value object;
  try {
    const bool isParsed = reader->parse(text.data(), text.data() + text.size(), &object, nullptr);
    return isParsed && object.isObject() ? std::optional(std::move(object)) : std::nullopt;
  } catch (const Json::Exception&) {  // nested too deeply
    return std::nullopt;
  }
}

}  // namespace ondaro::ctl
