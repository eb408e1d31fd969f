#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>
#include <string>

#include "HostSupport.h"
#include "StateDirectory.h"

namespace ondaro::test {
namespace {

namespace fs = std::filesystem;

/// What `look` finds in a process that has these variables and no others.
template <typename Look>
void With(const std::map<std::string, fs::path>& variables, Look look) {
  EXPECT_EQ(RunInChild([&] {
              clearenv();
              for (const auto& [name, value] : variables) {
                setenv(name.c_str(), value.c_str(), 1);
              }
              look();
              _exit(testing::Test::HasFailure() ? 1 : 0);
            }),
            0);
}

TEST(HostDirectory, IsTheFirstOfItsPlacesAndPrivate) {
  const TemporaryDirectory root;
  const auto expect = [&](const std::map<std::string, fs::path>& variables, const char* place) {
    With(variables, [&] { EXPECT_EQ(host::StateDirectory(), root / place); });
  };
  const fs::path home = root / "home";
  expect({{"HOME", home}}, "home/.local/state/ondaro");
  expect({{"HOME", home}, {"XDG_STATE_HOME", "relative"}}, "home/.local/state/ondaro");
  expect({{"HOME", home}, {"XDG_STATE_HOME", root / "xdg"}}, "xdg/ondaro");
  expect({{"XDG_STATE_HOME", root / "xdg"}, {"ONDARO_HOST_STATE", root / "own/deep"}}, "own/deep");
  EXPECT_EQ(fs::status(root / "own/deep").permissions(), fs::perms::owner_all);

  WriteFile(root / "file", "kept");
  for (const char* place : {"file", "file/below"}) {
    With({{"ONDARO_HOST_STATE", root / place}}, [] {
      EXPECT_EQ(host::StateDirectory(), "");
      EXPECT_EQ(errno, ENOTDIR);
    });
  }
  EXPECT_EQ(ReadFile(root / "file"), "kept");
}

TEST(HostDirectory, WhatAnEarlierBootLeftIsRemoved) {
  const TemporaryDirectory root;
  fs::create_directories(root / "own/run/an-earlier-boot");
  With({{"ONDARO_HOST_STATE", root / "own"}, {"XDG_RUNTIME_DIR", root / "runtime"}}, [&] {
    const fs::path run = host::RuntimeDirectory();
    EXPECT_EQ(run.parent_path(), root / "own/run");
    EXPECT_FALSE(fs::exists(root / "own/run/an-earlier-boot"));
    WriteFile(run / "memory.db", "this boot's");
    EXPECT_EQ(host::RuntimeDirectory(), run);
    EXPECT_TRUE(fs::exists(run / "memory.db"));
  });
  With({{"HOME", root.Path()}, {"XDG_RUNTIME_DIR", root / "runtime"}}, [&] {
    EXPECT_EQ(fs::path(host::RuntimeDirectory()).parent_path(), root / "runtime/ondaro");
  });
}

}  // namespace
}  // namespace ondaro::test
