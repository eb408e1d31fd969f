#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "Tool.h"

namespace ondaro::test {
namespace {

using std::filesystem::exists;
using std::filesystem::perms;
using testing::HasSubstr;
using testing::Not;

class AuthTest : public ToolTest {
 protected:
  Outcome Generate(const Words& more = {}) const {
    Words arguments = {"auth", "generate", "--key", Path("key"), "--cert", Path("cert")};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Run(arguments);
  }
};

TEST_F(AuthTest, TheKeyIsForItsOwnerAndNeverPrinted) {
  const Outcome outcome = Generate();
  EXPECT_EQ(outcome.code, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "");
  const std::string key = ReadWholeFile(Path("key"));
  EXPECT_FALSE(key.empty());
  EXPECT_FALSE(ReadWholeFile(Path("cert")).empty());
  EXPECT_THAT(outcome.err, Not(HasSubstr(key.substr(0, key.find('\n')))));
  EXPECT_EQ(std::filesystem::status(Path("key")).permissions(),
            perms::owner_read | perms::owner_write);
}

TEST_F(AuthTest, WhatIsThereStaysUnlessForced) {
  std::ofstream(Path("cert")) << "precious";
  const Outcome refused = Generate();
  EXPECT_EQ(refused.code, 1);
  EXPECT_THAT(refused.err, HasSubstr("--force replaces it"));
  EXPECT_EQ(ReadWholeFile(Path("cert")), "precious");
  EXPECT_FALSE(exists(Path("key"))) << "half a pair is of no use";

  EXPECT_EQ(Generate({"--force"}).code, 0);
  EXPECT_NE(ReadWholeFile(Path("cert")), "precious");
  EXPECT_EQ(Run({"auth", "generate", "--key", "/dev/tty", "--cert", Path("c"), "--force"}).code, 1);
  EXPECT_EQ(Run({"auth", "generate", "--key", Path("no/k"), "--cert", Path("c")}).code, 1);
  EXPECT_FALSE(exists(Path("c")));
}

TEST_F(AuthTest, SignsAHashGivenInEitherForm) {
  ASSERT_EQ(Generate().code, 0);
  const std::string hex(64, '7');
  std::ofstream(Path("hash")) << std::string(32, '\x77');
  const std::string printed =
      Run({"auth", "sign", "--key", Path("key"), "--hash-file", Path("hash")}).out;
  EXPECT_THAT(printed, testing::MatchesRegex("([0-9a-f][0-9a-f])+\n"));
  const Json::Value object =
      ParseObject(Run({"auth", "sign", "--key", Path("key"), "--hash", hex, "--json"}).out);
  EXPECT_FALSE(object["signature"].asString().empty());

  const Outcome toFile =
      Run({"auth", "sign", "--key", Path("key"), "--hash", hex, "--out", Path("signature")});
  EXPECT_EQ(toFile.code, 0);
  EXPECT_EQ(toFile.out, "");
  EXPECT_FALSE(ReadWholeFile(Path("signature")).empty());
}

TEST_F(AuthTest, WhatIsNoKeySignsNothing) {
  std::ofstream(Path("key")) << "no key";
  const Outcome outcome = Run({"auth", "sign", "--key", Path("key"), "--hash", "00"});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.err, HasSubstr("a device key"));
  EXPECT_EQ(Run({"auth", "sign", "--key", Path("missing"), "--hash", "00"}).code, 1);
}

TEST_F(AuthTest, TheSystemIdIsTheProperty) {
  const std::string id = Run({"auth", "system-id"}).out;
  EXPECT_GT(id.size(), 1U);
  EXPECT_EQ(Run({"get", "SYSTEM_ID"}).out, id);
  EXPECT_EQ(ParseObject(Run({"auth", "system-id", "--json"}).out)["system_id"].asString() + "\n",
            id);
}

}  // namespace
}  // namespace ondaro::test
