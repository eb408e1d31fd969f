#include <gtest/gtest.h>

#include <cstdlib>

#include "bus/PrivateBus.h"

namespace ondaro::test {
namespace {

std::string AskBus() {
  ChildProcess tool({"gdbus", "call", "--system", "--dest", "org.freedesktop.DBus", "--object-path",
                     "/", "--method", "org.freedesktop.DBus.NameHasOwner", "org.freedesktop.DBus"},
                    {std::nullopt, true, {}});
  return tool.ReadAll();
}

TEST(PrivateBus, ServesChildrenAndComesBackAtItsAddress) {
  PrivateBus bus;
  EXPECT_EQ(bus.Address(), getenv("DBUS_SYSTEM_BUS_ADDRESS"));
  EXPECT_EQ(AskBus(), "(true,)\n");
  bus.Kill();
  EXPECT_NE(AskBus(), "(true,)\n");
  bus.Start();
  EXPECT_EQ(AskBus(), "(true,)\n");
}

TEST(PrivateBus, AnswersNothingWhileItStandsStill) {
  PrivateBus bus;
  bus.Freeze();
  ChildProcess caller({"gdbus", "call", "--system", "--dest", "org.freedesktop.DBus",
                       "--object-path", "/", "--method", "org.freedesktop.DBus.GetId"});
  EXPECT_FALSE(caller.ReadLine(std::chrono::milliseconds(200)));
  bus.Thaw();
  EXPECT_TRUE(caller.ReadLine());
}

TEST(PrivateBus, RestoresTheAddressThatWasSet) {
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", 1);
  { PrivateBus bus; }
  EXPECT_STREQ(getenv("DBUS_SYSTEM_BUS_ADDRESS"), "unix:path=/nowhere");
}

}  // namespace
}  // namespace ondaro::test
