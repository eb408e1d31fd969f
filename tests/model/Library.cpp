#include <glib.h>

#include "model/Subject.h"
#include "ondaro/OndaroApi.h"
#include "support/FakePlatform.h"
#include "support/PlainPeer.h"
#include "support/PrivateBus.h"
#include "support/WaitUntil.h"

namespace ondaro::model {

namespace {

/// Of a line: addresses, connections, the bus library's wording of errors, and what a signature's
/// text has but the name.
constexpr char INCOMPARABLE[] =
    "0x\\K[0-9a-f]+|sender(_name)?\\K:[0-9:.]+|call_finish error : \\K.*|"
    "\\[\\K[^(]* (?=\\S*Ondaro)|Ondaro[^ (]*\\(\\K[^]]*(?=\\)])";

/// On a bus of its own and over the scripted platform.
class Library : public Subject {
 public:
  Library() : Subject(FakePlatform::Get().m_values) {
    m_fake.m_onStoreCall = [this](const std::string& call) { return IsStoreWorking(call); };
    g_dbus_connection_set_exit_on_close(m_connection, FALSE);
    g_assert(test::WaitUntil([] { return !test::PlainPeer().Owner().empty(); }));
    Deliver();
  }

 private:
  std::string Call(const Step& step) override {
    const char *const name = NameOf(step), *const value = ValueOf(step);
    const auto callback = ScriptOf(step) != NO_SCRIPT ? OnEvent : nullptr;
    char* const script = &s_scripts[ScriptOf(step)];
    const bool isConfig = step.family == CONFIG, isServer = step.family == SERVER;
    int result = 0;
    if (step.op == GET) {
      return Get(name);
    }
    if (step.op == SEND) {
      result = isConfig   ? OndaroApi_SystemConfig_SetProperty(m_config, name, value)
               : isServer ? OndaroApi_IpcServer_SendDataToClient(m_server, name, value)
                          : OndaroApi_IpcClient_SendDataToServer(m_client, name, value);
    } else if (step.op == WATCH) {
      isConfig   ? OndaroApi_SystemConfig_RegisterEventHandler(m_config, name, callback, script)
      : isServer ? OndaroApi_IpcServer_RegisterEventHandler(m_server, name, callback, script)
                 : OndaroApi_IpcClient_RegisterEventHandler(m_client, name, callback, script);
    } else {
      isConfig   ? OndaroApi_SystemConfig_UnregisterEventHandler(m_config, name)
      : isServer ? OndaroApi_IpcServer_UnregisterEventHandler(m_server)
                 : OndaroApi_IpcClient_UnregisterEventHandler(m_client);
    }
    // An event is on its way to the handlers of this moment, not of those when it is delivered.
    test::SyncWithBus(m_connection);
    return std::to_string(result);
  }

  std::string Get(const char* name) {
    uint32_t length = 0;
    const char* value = OndaroApi_SystemConfig_GetProperty(m_config, name, &length);
    std::string result = value != nullptr ? value + std::to_string(length) : "null";
    OndaroApi_SystemConfig_DestroyProperty(value);
    return result;
  }

  static void OnEvent(const char* data, void* script) {
    const auto number = static_cast<char*>(script) - s_scripts;
    TheLibrary().RunScript(static_cast<unsigned>(number), data);
  }

  void Notify(const std::string& key, const std::optional<Value>* value) override {
    platform_settings_node node{key.c_str(), value != nullptr ? *value : std::nullopt};
    m_fake.Notify(key, value != nullptr ? &node : nullptr);
  }

  /// Every message is in the log when it is dispatched, so silence means that none is left.
  void Deliver() override {
    for (std::size_t before = SIZE_MAX; before != m_lines.size();) {
      before = m_lines.size();
      test::SyncWithBus(m_connection);
      test::Drain();
      Collect();
    }
  }

  void Collect() override {
    static GRegex* const incomparable = g_regex_new(
        INCOMPARABLE, static_cast<GRegexCompileFlags>(G_REGEX_RAW | G_REGEX_OPTIMIZE), {}, nullptr);
    for (const SLogEntry& entry : m_fake.TakeLog()) {
      gchar* const line =
          g_regex_replace_literal(incomparable, entry.Text().c_str(), -1, 0, "", {}, nullptr);
      m_lines.emplace_back(line);
      g_free(line);
    }
  }

  FakePlatform& m_fake = FakePlatform::Get();
  static inline char s_scripts[SCRIPTS];  // their addresses tell them apart
  GDBusConnection* const m_connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  // The client before there is a daemon, whose properties it would ask for.
  const OndaroApi_IpcClient_h m_client = OndaroFactory_GetIpcClientHandle();
  const OndaroApi_IpcServer_h m_server = OndaroFactory_GetIpcServerHandle();
  const OndaroApi_SystemConfig_h m_config = OndaroFactory_GetSystemConfigHandle();
};

}  // namespace

Subject& TheLibrary() {
  // Both outlive the services, which end with the process.
  static const test::PrivateBus bus;
  static auto* const library = new Library;
  return *library;
}

}  // namespace ondaro::model
