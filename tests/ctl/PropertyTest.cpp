#include <gmock/gmock.h>

#include "Catalogue.h"
#include "Tool.h"

namespace ondaro::test {
namespace {

using ctl::CATALOGUE;
using ctl::Kind;
using ctl::Property;
using testing::HasSubstr;

class PropertyTest : public ToolTest {};

TEST_F(PropertyTest, ValuesComeBackAsTheyWereGiven) {
  const struct {
    std::string name;
    std::string written;
    std::string readBack;
  } cases[] = {
      {"ONDARO_STATUS", "active", "active"},
      {"ONDARO_STATUS", "", ""},
      {"ONDARO_STATUS", "error", "error"},  // a value here, not a failed read
      {"ONDARO_STATUS", " two  blanks ", " two  blanks "},
      {"ONDARO_STATUS", "line\nbreak\t\x01\x7f", "line\nbreak\t\x01\x7f"},
      {"ONDARO_STATUS", R"(C:\n "quoted" [a,b] {} $HOME %s)", R"(C:\n "quoted" [a,b] {} $HOME %s)"},
      {"ONDARO_STATUS", "[a,b]", "[a,b]"},
      {"ONDARO_STATUS", "{}", "{}"},
      {"ONDARO_STATUS", "--json", "--json"},
      {"ONDARO_STATUS", "\xff not UTF-8", "\xff not UTF-8"},
      {"ONDARO_ENABLE_USAGE_RPT", "set", "set"},  // a verb's name as well
      {"ONDARO_ENABLE_USAGE_RPT", "sometimes", "false"},
      {"ONDARO_INIT", "true", "true"},
      {"ONDARO_INIT", "True", "false"},
  };
  for (const auto& [name, written, readBack] : cases) {
    SCOPED_TRACE(written);
    Set(name, written);
    const Outcome outcome = Run({"get", name});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.out, readBack + "\n");
    EXPECT_EQ(outcome.err, "");
  }
  EXPECT_THAT(Run({"set", "ONDARO_INIT", "True"}).err, HasSubstr("stores false"));
}

TEST_F(PropertyTest, AStoreThatCannotBeReadIsAFailure) {
  setenv("ONDARO_HOST_STATE", "/dev/null", 1);
  for (const Words& arguments :
       {Words{"get", "ONDARO_STATUS"}, Words{"get", "ONDARO_STATUS", "--json"},
        Words{"set", "ONDARO_STATUS", "x"}, Words{"watch"}}) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, HasSubstr("--log error"));
  }
  EXPECT_THAT(Run({"list"}).out, HasSubstr("ONDARO_STATUS            (cannot be read)"));
}

TEST_F(PropertyTest, ListShowsEveryPropertyAndItsState) {
  Set("ONDARO_TOS_STATUS", "");
  Set("ONDARO_STATUS", "a\nb");
  const std::vector<Json::Value> objects = ParseObjects(Run({"list", "--json"}).out);
  ASSERT_EQ(objects.size(), CATALOGUE.size());
  for (std::size_t i = 0; i < objects.size(); ++i) {
    const Property& property = CATALOGUE[i];
    const std::string name(property.name);
    EXPECT_EQ(objects[i]["name"], name);
    EXPECT_EQ(objects[i]["writable"], property.IsWritable()) << name;
    EXPECT_EQ(objects[i]["events"], property.hasEvents) << name;
    const bool isSet = name == "ONDARO_TOS_STATUS" || name == "ONDARO_STATUS";
    const char* const state = !property.IsReadable()             ? "write-only"
                              : property.key == nullptr || isSet ? "ok"
                                                                 : "unreadable";
    EXPECT_EQ(objects[i]["state"], state) << name;
    EXPECT_EQ(objects[i]["value"].isNull(), std::string(state) != "ok") << name;
  }
  const std::string text = Run({"list"}).out;
  EXPECT_THAT(text, HasSubstr("\nONDARO_STATUS            a\\nb\n"));
  EXPECT_THAT(text, HasSubstr("\nONDARO_TOS_STATUS        \n"));
  EXPECT_THAT(text, HasSubstr("\nONDARO_SET_PROCESS_GRP   (write-only)\n"));
}

// The tool's table and the library's are two; this holds them together.
TEST_F(PropertyTest, TheCatalogueIsTheLibrarys) {
  for (const Property& property : CATALOGUE) {
    if (property.key == nullptr) {
      continue;
    }
    SCOPED_TRACE(property.name);
    const bool isText = property.kind == Kind::Text;
    Set(std::string(property.name), isText ? "text" : "true");
    Words arguments = {"store", "get", property.key};
    if (!isText) {
      arguments.emplace_back("--int");
    }
    const std::string stored = isText ? "text\n" : property.kind == Kind::Flag ? "1\n" : "2\n";
    EXPECT_EQ(Run(arguments).out, stored);
  }
}

TEST_F(PropertyTest, DeviceShowsWhatTheSetSays) {
  Json::Value unknown = ParseObject(Run({"device", "--json"}).out);
  EXPECT_TRUE(unknown["model_id"].isNull());
  EXPECT_EQ(unknown["init_reset"], false);
  EXPECT_TRUE(unknown.isMember("product_year"));
  EXPECT_TRUE(unknown["power_usable"].isBool());

  EXPECT_EQ(Run({"store", "set", "db/comss/modelid", "QX 1"}).code, 0);
  EXPECT_EQ(Run({"store", "set", "--int", "db/menu/network/airplay_init", "0"}).code, 0);
  const Outcome known = Run({"device"});
  EXPECT_EQ(known.code, 0);
  EXPECT_THAT(known.out, HasSubstr("model id      QX 1\ninit reset    yes\n"));
}

}  // namespace
}  // namespace ondaro::test
