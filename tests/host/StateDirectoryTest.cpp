#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <optional>
#include <string>

#include "StateDirectory.h"
#include "host/StoreProcess.h"

namespace ondaro::test {
namespace {

namespace fs = std::filesystem;

/// Sets the variables for the test and gives them back after it.
class StateDirectoryTest : public testing::Test {
 protected:
  ~StateDirectoryTest() override {
    for (const auto& [name, value] : m_before) Put(name, value);
  }

  void Environment(const std::map<std::string, fs::path>& variables) {
    for (const char* name : {"ONDARO_HOST_STATE", "XDG_STATE_HOME", "XDG_RUNTIME_DIR", "HOME"}) {
      const char* before = getenv(name);
      m_before.try_emplace(name,
                           before != nullptr ? std::optional<std::string>(before) : std::nullopt);
      const auto wanted = variables.find(name);
      Put(name, wanted != variables.end() ? std::optional(wanted->second.string()) : std::nullopt);
    }
  }
  fs::path Root() const { return m_root.Path(); }

 private:
  static void Put(const std::string& name, const std::optional<std::string>& value) {
    value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
  }

  TemporaryDirectory m_root;
  std::map<std::string, std::optional<std::string>> m_before;
};

TEST_F(StateDirectoryTest, IsTheFirstOfItsPlacesAndPrivate) {
  const fs::path home = Root() / "home";
  Environment({{"HOME", home}});
  EXPECT_EQ(host::StateDirectory(), home / ".local/state/ondaro");
  Environment({{"HOME", home}, {"XDG_STATE_HOME", "relative/is/ignored"}});
  EXPECT_EQ(host::StateDirectory(), home / ".local/state/ondaro");
  Environment({{"HOME", home}, {"XDG_STATE_HOME", Root() / "xdg"}});
  EXPECT_EQ(host::StateDirectory(), Root() / "xdg/ondaro");
  Environment({{"XDG_STATE_HOME", Root() / "xdg"}, {"ONDARO_HOST_STATE", Root() / "own/deep"}});
  EXPECT_EQ(host::StateDirectory(), Root() / "own/deep");

  struct stat status = {};
  ASSERT_EQ(stat((Root() / "own/deep").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0700U);
}

TEST_F(StateDirectoryTest, WhatAnEarlierBootLeftIsRemoved) {
  Environment({{"ONDARO_HOST_STATE", Root() / "own"}, {"XDG_RUNTIME_DIR", Root() / "runtime"}});
  fs::create_directories(Root() / "own/run/an-earlier-boot");
  std::ofstream(Root() / "own/run/an-earlier-boot/memory.db") << "old";
  const fs::path run = host::RuntimeDirectory();
  EXPECT_EQ(run.parent_path(), Root() / "own/run");
  EXPECT_TRUE(fs::is_directory(run));
  EXPECT_FALSE(fs::exists(Root() / "own/run/an-earlier-boot"));

  std::ofstream(run / "memory.db") << "this boot's";
  EXPECT_EQ(host::RuntimeDirectory(), run);
  EXPECT_TRUE(fs::exists(run / "memory.db"));

  Environment({{"HOME", Root()}, {"XDG_RUNTIME_DIR", Root() / "runtime"}});
  EXPECT_EQ(fs::path(host::RuntimeDirectory()).parent_path(), Root() / "runtime/ondaro");
}

TEST_F(StateDirectoryTest, FileInItsPlaceIsAnErrorAndKept) {
  std::ofstream(Root() / "file") << "text";
  Environment({{"ONDARO_HOST_STATE", Root() / "file"}});
  EXPECT_EQ(host::StateDirectory(), "");
  EXPECT_EQ(errno, ENOTDIR);
  Environment({{"ONDARO_HOST_STATE", Root() / "file/below"}});
  EXPECT_EQ(host::StateDirectory(), "");
  EXPECT_TRUE(fs::is_regular_file(Root() / "file"));
}

}  // namespace
}  // namespace ondaro::test
