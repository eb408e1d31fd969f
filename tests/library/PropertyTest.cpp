// Properties and their change events, where the model does not reach: beside the exported
// functions, and beyond its values.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "FakePlatform.h"
#include "ondaro/OndaroApi.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char STATUS_KEY[] = "memory/menu/network/ondaro_status";
using Events = std::vector<std::string>;

class Property : public ::testing::Test {
 protected:
  void RegisterStatus(Events& events) {
    OndaroApi_SystemConfig_RegisterEventHandler(
        m_config, "ONDARO_STATUS",
        [](const char* data, void* userData) {
          static_cast<Events*>(userData)->emplace_back(data);
        },
        &events);
  }

  FakePlatform& m_fake = FakePlatform::Get();
  OndaroApi_SystemConfig_h m_config = OndaroFactory_GetSystemConfigHandle();
};

TEST_F(Property, ALongTextIsStoredReadAndDelivered) {
  const std::string text(70'000, 'x');
  Events events;
  RegisterStatus(events);
  ASSERT_TRUE(OndaroApi_SystemConfig_SetProperty(m_config, "ONDARO_STATUS", text.c_str()));
  uint32_t length = 0;
  const char* value = OndaroApi_SystemConfig_GetProperty(m_config, "ONDARO_STATUS", &length);
  EXPECT_EQ(std::string(value, length + 1), text + '\0');
  OndaroApi_SystemConfig_DestroyProperty(value);
  OndaroApi_SystemConfig_DestroyProperty(nullptr);
  m_fake.Change(STATUS_KEY, text);
  EXPECT_THAT(events, ElementsAre(text));
}

TEST_F(Property, UnregistrationSilencesAlsoAStoreThatGoesOnCalling) {
  Events events;
  RegisterStatus(events);
  const FakePlatform::SSubscription subscription = m_fake.m_subscriptions.at(STATUS_KEY);
  OndaroApi_SystemConfig_UnregisterEventHandler(m_config, "ONDARO_STATUS");
  EXPECT_EQ(m_fake.m_subscriptions.count(STATUS_KEY), 0U);
  platform_settings_node node{STATUS_KEY, SettingsValue(std::string("b"))};
  subscription.callback(&node, subscription.userData);
  EXPECT_THAT(events, IsEmpty());

  m_fake.TakeLog();
  subscription.callback(&node, nullptr);
  EXPECT_THAT(m_fake.TakeLogTexts(),
              ElementsAre("6 ONDARO_PAL OndaroStatusChangedCallback: exception : PAL Exception: "
                          "Nullptr: pThis"));
}

TEST_F(Property, ProcessGroupIsSetWithWhateverTheLookupReturned) {
  for (const int appPid : {4711, -1}) {
    m_fake.m_appPid = appPid;
    m_fake.m_groupRequests.clear();
    EXPECT_TRUE(OndaroApi_SystemConfig_SetProperty(m_config, "ONDARO_SET_PROCESS_GRP", "app.id"));
    EXPECT_THAT(m_fake.m_groupRequests, ElementsAre(std::make_pair(appPid, getpid())));
    EXPECT_EQ(m_fake.TakeLog().rbegin()[1].body,
              "pid of caller process : " + std::to_string(getpid()) +
                  ", pid of appid (app.id) : " + std::to_string(appPid) + "\n");
  }
}

}  // namespace
