// Change events of properties: from the settings store's callback to the C callback.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "FakePlatform.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALFactory.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char STATUS_KEY[] = "memory/menu/network/ondaro_status";
constexpr char TOS_KEY[] = "db/menu/network/ondaro_tos_status";

using Events = std::vector<std::string>;

void Collect(const char* data, void* userData) {
  static_cast<Events*>(userData)->emplace_back(data);
}

class ChangeEvent : public ::testing::Test {
 protected:
  void Register(const char* name, Events& events) {
    OndaroApi_SystemConfig_RegisterEventHandler(m_config, name, Collect, &events);
  }

  FakePlatform& m_fake = FakePlatform::Get();
  OndaroApi_SystemConfig_h m_config = OndaroFactory_GetSystemConfigHandle();
};

TEST_F(ChangeEvent, EveryPropertyDeliversItsOwnForm) {
  const std::vector<std::pair<int, const char*>> flags = {{1, "true"},   {0, "false"}, {2, "false"},
                                                          {-1, "false"}, {1, "true"},  {1, "true"}};
  const std::vector<std::pair<int, const char*>> usage = {{0, "false"}, {1, "default"}, {2, "true"},
                                                          {3, "set"},   {7, ""},        {3, "set"}};
  const struct {
    const char* name;
    const char* key;
    const std::vector<std::pair<int, const char*>>& changes;
  } integers[] = {{"ONDARO_SUPPORT", "db/menu/network/ondaro_support", flags},
                  {"ONDARO_CLEAR_DATA", "db/menu/network/ondaro_clear_data", flags},
                  {"ONDARO_ENABLE_USAGE_RPT", "db/menu/network/ondaro_enable_usage_rpt", usage}};
  for (const auto& property : integers) {
    Events events;
    Register(property.name, events);
    Events expected;
    for (const auto& [number, text] : property.changes) {
      m_fake.Change(property.key, number);
      expected.emplace_back(text);
    }
    EXPECT_EQ(events, expected) << property.name;
  }

  const struct {
    const char* name;
    const char* key;
    bool isFiltered;
  } strings[] = {{"ONDARO_ENROLLMENT", "db/ondaro/property/enterprise_enrollment", true},
                 {"ONDARO_STATUS", STATUS_KEY, true},
                 {"ONDARO_TOS_STATUS", TOS_KEY, false},
                 {"WIDEVINE_ONDARO_VERSION", "db/ondaro/property/widevine_ondaro_version", true},
                 {"WIDEVINE_ONDARO_SUPPORT", "db/ondaro/property/widevine_ondaro_support", true}};
  for (const auto& property : strings) {
    Events events;
    m_fake.m_values[property.key] = std::string("a");
    Register(property.name, events);
    for (const char* value : {"a", "b", "b", "a"}) {
      m_fake.Change(property.key, std::string(value));
    }
    EXPECT_EQ(events, property.isFiltered ? Events({"b", "a"}) : Events({"a", "b", "b", "a"}))
        << property.name;
  }
}

TEST_F(ChangeEvent, RegistrationLogsAndSubscribesAndReloadsTheCache) {
  Events events;
  m_fake.TakeLog();
  m_fake.m_values[STATUS_KEY] = std::string("a");
  Register("ONDARO_STATUS", events);
  const std::vector<std::string> log = m_fake.TakeLogTexts();
  EXPECT_THAT(std::vector<std::string>(log.begin() + 1, log.end() - 1),
              ElementsAre("6 ONDARO_PAL RegisterEventHandler: key : ONDARO_STATUS",
                          std::string("3 ONDARO_PAL RegisterSetregChangedCb: Succeed to register "
                                      "for notification for key ") +
                              STATUS_KEY + " "));
  EXPECT_THAT(m_fake.m_storeCalls, ElementsAre(std::string("get_string ") + STATUS_KEY,
                                               std::string("subscribe ") + STATUS_KEY));

  // Changed behind the subscription: the second registration brings the cache up to date.
  m_fake.m_values[STATUS_KEY] = std::string("b");
  Events second;
  Register("ONDARO_STATUS", second);
  m_fake.Change(STATUS_KEY, std::string("b"));
  EXPECT_THAT(second, IsEmpty());
  // A read that fails keeps what the cache holds.
  m_fake.m_values.erase(STATUS_KEY);
  Register("ONDARO_STATUS", second);
  m_fake.Change(STATUS_KEY, std::string("b"));
  EXPECT_THAT(second, IsEmpty());
  m_fake.Change(STATUS_KEY, std::string("c"));
  EXPECT_THAT(second, ElementsAre("c"));
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(ChangeEvent, UnregistrationSilencesAlsoAStoreThatGoesOnCalling) {
  Events events;
  m_fake.m_values[STATUS_KEY] = std::string("a");
  Register("ONDARO_STATUS", events);
  const FakePlatform::SSubscription subscription = m_fake.m_subscriptions.at(STATUS_KEY);
  OndaroApi_SystemConfig_UnregisterEventHandler(m_config, "ONDARO_STATUS");
  EXPECT_EQ(m_fake.m_subscriptions.count(STATUS_KEY), 0U);
  platform_settings_node node{STATUS_KEY, SettingsValue(std::string("b"))};
  subscription.callback(&node, subscription.userData);
  EXPECT_THAT(events, IsEmpty());

  m_fake.TakeLog();
  OndaroApi_SystemConfig_UnregisterEventHandler(m_config, "ONDARO_TOS_STATUS");
  EXPECT_EQ(m_fake.TakeLogTexts()[1],
            std::string("6 ONDARO_PAL DeregisterSetregChangedCb: Failed to Un register for setreg "
                        "key ") +
                TOS_KEY + " nottification");
}

TEST_F(ChangeEvent, NamesWithoutEventsAreAcceptedAndNeverSubscribed) {
  Events events;
  for (const char* name : {"ONDARO_INIT", "SYSTEM_ID", "unknown", ""}) {
    Register(name, events);
    OndaroApi_SystemConfig_UnregisterEventHandler(m_config, name);
  }
  EXPECT_THAT(m_fake.m_storeCalls, IsEmpty());
  OndaroApi_SystemConfig_RegisterEventHandler(m_config, "ONDARO_TOS_STATUS", nullptr, nullptr);
  m_fake.Change(TOS_KEY, std::string("dropped"));
}

// The order of the tests inside a notification, and that nothing thrown reaches the store.
TEST_F(ChangeEvent, FaultyNotificationsEndInsideWithALogLine) {
  Events events;
  Register("ONDARO_STATUS", events);
  Register("ONDARO_SUPPORT", events);
  const auto status = m_fake.m_subscriptions.at(STATUS_KEY).callback;
  const auto support = m_fake.m_subscriptions.at("db/menu/network/ondaro_support").callback;
  platform_settings_node unreadable{STATUS_KEY, std::nullopt};
  platform_settings_node text{STATUS_KEY, SettingsValue(std::string("x"))};

  const struct {
    platform_settings_changed_cb callback;
    platform_settings_node* node;
    std::vector<std::string> log;
  } cases[] = {
      {status,
       nullptr,
       {"6 ONDARO_PAL OndaroStatusChangedCallback: exception : PAL Exception: Nullptr: pKeyNode"}},
      {status,
       &unreadable,
       {"6 ONDARO_PAL GetSetregStrFromKeynode: failed to get str from keynode",
        "6 ONDARO_PAL OndaroStatusChangedCallback: throw GetSetregStrFromKeynode",
        "6 ONDARO_PAL OndaroStatusChangedCallback: exception : PAL Exception: InvalidCase: "
        "GetSetregStrFromKeynode"}},
      {support,
       &text,
       {"6 ONDARO_PAL GetSetregIntFromKeynode: failed to get int from keynode",
        "6 ONDARO_PAL OndaroSupportChangedCallback: throw GetSetregIntFromKeynode",
        "6 ONDARO_PAL OndaroSupportChangedCallback: exception : PAL Exception: InvalidCase: "
        "GetSetregIntFromKeynode"}},
      {status,
       &text,
       {"6 ONDARO_PAL OndaroStatusChangedCallback: exception : PAL Exception: Nullptr: pThis"}},
  };
  for (const auto& oneCase : cases) {
    m_fake.TakeLog();
    oneCase.callback(oneCase.node, nullptr);
    EXPECT_EQ(m_fake.TakeLogTexts(), oneCase.log);
  }
  EXPECT_THAT(events, IsEmpty());

  NOndaroPAL::GetSystemConfig().RegisterEventHandler(
      "ONDARO_TOS_STATUS", [](const std::string&) { throw std::runtime_error("handler"); });
  m_fake.Change(TOS_KEY, std::string("x"));
  EXPECT_THAT(m_fake.TakeLogTexts(),
              Contains("6 ONDARO_PAL OndaroToSStatusChangedCallback: exception : handler"));
  NOndaroPAL::GetSystemConfig().RegisterEventHandler("ONDARO_TOS_STATUS",
                                                     [](const std::string&) { throw 7; });
  m_fake.Change(TOS_KEY, std::string("x"));
  NOndaroPAL::GetSystemConfig().RegisterEventHandler("ONDARO_TOS_STATUS", nullptr);
  m_fake.Change(TOS_KEY, std::string("x"));
  EXPECT_THAT(m_fake.TakeLogTexts(),
              Contains("6 ONDARO_PAL OndaroToSStatusChangedCallback: exception : "
                       "bad_function_call"));
}

// A callback that changes its own registration; its user data goes with the handler it replaces.
TEST_F(ChangeEvent, CallbacksMayUnregisterAndReplaceThemselves) {
  struct SContext {
    OndaroApi_SystemConfig_h config;
    int calls;
    std::string longData;
  };
  SContext context{m_config, 0, std::string(100, 'x')};
  OndaroApi_SystemConfig_RegisterEventHandler(
      m_config, "ONDARO_STATUS",
      [](const char* data, void* userData) {
        auto* self = static_cast<SContext*>(userData);
        ++self->calls;
        OndaroApi_SystemConfig_UnregisterEventHandler(self->config, "ONDARO_STATUS");
        EXPECT_EQ(data, self->longData);
      },
      &context);
  m_fake.Change(STATUS_KEY, context.longData);
  EXPECT_EQ(context.calls, 1);

  int replaced = 0;
  int direct = 0;
  NOndaroAPI::CSystemConfig& config = NOndaroPAL::GetSystemConfig();
  const std::string captured(100, 'c');
  config.RegisterEventHandler("ONDARO_TOS_STATUS", [&, captured](const std::string&) {
    ++direct;
    config.RegisterEventHandler("ONDARO_TOS_STATUS", [&](const std::string&) { ++replaced; });
    EXPECT_EQ(captured, std::string(100, 'c'));
  });
  m_fake.Change(TOS_KEY, std::string("1"));
  m_fake.Change(TOS_KEY, std::string("2"));
  EXPECT_EQ(direct, 1);
  EXPECT_EQ(replaced, 1);
}

}  // namespace
