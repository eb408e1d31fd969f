#include <gmock/gmock.h>

#include "Tool.h"

namespace ondaro::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

class StoreTest : public ToolTest {};

TEST_F(StoreTest, TextAndNumbersAreTwoThings) {
  EXPECT_EQ(Run({"store", "set", "a/text", "12"}).code, 0);
  EXPECT_EQ(Run({"store", "set", "a/number", "--int", "--", "-2147483648"}).code, 0);
  EXPECT_EQ(Run({"store", "get", "a/text"}).out, "12\n");
  EXPECT_EQ(Run({"store", "get", "a/number", "--int"}).out, "-2147483648\n");
  EXPECT_EQ(ParseObject(Run({"store", "get", "a/text", "--json"}).out)["value"], "12");
  EXPECT_EQ(ParseObject(Run({"store", "get", "a/number", "--int", "--json"}).out)["value"],
            -2147483647 - 1);

  const Outcome asText = Run({"store", "get", "a/number"});
  EXPECT_EQ(asText.code, 1);
  EXPECT_THAT(asText.err, HasSubstr("add --int"));
  EXPECT_EQ(Run({"store", "get", "a/text", "--int"}).code, 1);
}

TEST_F(StoreTest, WatchShowsEveryWriteAlsoOfTheSameValue) {
  auto watch = StartReady({"store", "watch", "a/b", "c", "-n", "4"});
  const struct {
    Words write;
    std::string shown;
  } cases[] = {{{"a/b", "x\ny"}, " a/b x\\ny"},
               {{"a/b", "x\ny"}, " a/b x\\ny"},
               {{"c", "--int", "7"}, " c 7"},
               {{"c", ""}, " c "}};
  for (const auto& [write, shown] : cases) {
    Words arguments = {"store", "set"};
    arguments.insert(arguments.end(), write.begin(), write.end());
    EXPECT_EQ(Run(arguments).code, 0);
    EXPECT_THAT(watch->ReadLine().value_or(""), EndsWith(shown));
  }
  EXPECT_EQ(watch->Wait(), 0);
}

}  // namespace
}  // namespace ondaro::test
