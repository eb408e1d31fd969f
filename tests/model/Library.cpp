#include <glib.h>

#include <stdexcept>

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
    for (unsigned number = 0; number < 64; ++number) {
      m_slots.push_back({this, number});
    }
    m_store[APPLICATION] = APPLICATION_PID;
    m_fake.m_onStoreCall = [this](const std::string& call) { return IsStoreWorking(call); };
    g_dbus_connection_set_exit_on_close(m_connection, FALSE);
    // The client before there is a daemon, whose properties it would ask for.
    m_client = OndaroFactory_GetIpcClientHandle();
    m_server = OndaroFactory_GetIpcServerHandle();
    m_config = OndaroFactory_GetSystemConfigHandle();
    if (!test::WaitUntil([] { return !test::PlainPeer().Owner().empty(); })) {
      throw std::runtime_error("the name was not acquired");
    }
    Deliver();
  }

 private:
  struct Slot {
    Library* library;
    unsigned script;
  };

  std::string Call(const Step& step) override {
    const char* const key = KeyOf(step).property;
    const char* const name = EventNameOf(step);
    const char* const value = ValueOf(step);
    const auto callback = ScriptOf(step) != NO_SCRIPT ? OnEvent : nullptr;
    Slot* const slot = &m_slots[ScriptOf(step)];
    int result = 0;
    switch (step.op) {
      case GET:
        return Get(key);
      case SET:
        result = OndaroApi_SystemConfig_SetProperty(m_config, key, value);
        break;
      case WATCH:
        OndaroApi_SystemConfig_RegisterEventHandler(m_config, key, callback, slot);
        break;
      case UNWATCH:
        OndaroApi_SystemConfig_UnregisterEventHandler(m_config, key);
        break;
      case SERVER_WATCH:
        OndaroApi_IpcServer_RegisterEventHandler(m_server, name, callback, slot);
        break;
      case SERVER_UNWATCH:
        OndaroApi_IpcServer_UnregisterEventHandler(m_server);
        break;
      case SERVER_SEND:
        result = OndaroApi_IpcServer_SendDataToClient(m_server, name, value);
        break;
      case CLIENT_WATCH:
        OndaroApi_IpcClient_RegisterEventHandler(m_client, name, callback, slot);
        break;
      case CLIENT_UNWATCH:
        OndaroApi_IpcClient_UnregisterEventHandler(m_client);
        break;
      default:
        result = OndaroApi_IpcClient_SendDataToServer(m_client, name, value);
    }
    // An event is on its way to the handlers of this moment, not of those when it is delivered.
    if (step.op == SERVER_SEND || step.op == CLIENT_SEND) {
      test::SyncWithBus(m_connection);
    }
    return std::to_string(result);
  }

  std::string Get(const char* key) {
    uint32_t length = 0;
    const char* value = OndaroApi_SystemConfig_GetProperty(m_config, key, &length);
    std::string result = value != nullptr ? value + std::to_string(length) : "null";
    OndaroApi_SystemConfig_DestroyProperty(value);
    return result;
  }

  static void OnEvent(const char* data, void* slotOfScript) {
    const auto [library, number] = *static_cast<Slot*>(slotOfScript);
    library->RunScript(number, data);
  }

  void Notify(const std::string& key, const News& news) override {
    platform_settings_node node{key, news.value};
    m_fake.Notify(key, news.hasNode ? &node : nullptr);
  }

  /// Every message is in the log when it is dispatched, so silence means that none is left.
  void Deliver() override {
    std::size_t before = 0;
    do {
      before = m_lines.size();
      test::SyncWithBus(m_connection);
      test::Drain();
      Collect();
    } while (m_lines.size() != before);
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
  GDBusConnection* const m_connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  std::vector<Slot> m_slots;
  OndaroApi_SystemConfig_h m_config = nullptr;
  OndaroApi_IpcClient_h m_client = nullptr;
  OndaroApi_IpcServer_h m_server = nullptr;
};

}  // namespace

Subject& TheLibrary() {
  // Both outlive the services, which end with the process.
  static const test::PrivateBus bus;
  static auto* const library = new Library;
  return *library;
}

}  // namespace ondaro::model
