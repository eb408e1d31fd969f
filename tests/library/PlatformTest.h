#ifndef ONDARO_TESTS_LIBRARY_PLATFORMTEST_H
#define ONDARO_TESTS_LIBRARY_PLATFORMTEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/FakePlatform.h"

/// Over a set that is as in the beginning.
class PlatformTest : public testing::Test {
 protected:
  PlatformTest() { m_fake.Reset(); }

  /// A call's result and the lines it wrote, without tracers: "false 6 SetregSetStr: pKey is
  /// empty".
  std::string Told(bool result) {
    std::string text = result ? "true" : "false";
    for (const SLogEntry& entry : m_fake.TakeLog()) {
      if (entry.function.find("TRACE") == std::string::npos) {
        text += " " + std::to_string(entry.priority) + " " + entry.function + ": " + entry.body;
      }
    }
    return text.substr(0, text.find(" in ["));
  }

  FakePlatform& m_fake = FakePlatform::Get();
};

/// What calls told, in order, and what they were to tell.
using Rows = std::vector<std::pair<std::string, std::string>>;
inline void ExpectAlike(const Rows& rows) {
  for (const auto& [told, expected] : rows) {
    EXPECT_EQ(told, expected);
  }
}

#endif
