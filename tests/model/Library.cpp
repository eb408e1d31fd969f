#include <stdexcept>
#include <utility>

#include "model/Step.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/api/CException.h"
#include "support/FakePlatform.h"
#include "support/PlainPeer.h"
#include "support/PrivateBus.h"
#include "support/WaitUntil.h"

namespace ondaro::model {

namespace {

/// Without addresses, the bus library's wording of errors, and what a signature's text has but
/// the name.
std::string Comparable(std::string line) {
  static const std::string error = "g_dbus_proxy_call_finish error : ";
  if (const std::size_t at = line.find(error); at != std::string::npos) {
    line.resize(at + error.size());
  }
  for (std::size_t at = 0; (at = line.find("0x", at)) != std::string::npos; at += 2) {
    line.erase(at + 2, line.find_first_not_of("0123456789abcdef", at + 2) - at - 2);
  }
  const std::size_t arguments = line.find('('), bracket = line.rfind('[', arguments);
  if (line.find("Ondaro", bracket) < arguments) {
    line.erase(arguments + 1, line.find(")]", arguments) - arguments - 1);
    line.erase(bracket + 1, line.find_last_of("[ ", arguments) - bracket);
  }
  return line;
}

void RaiseIf(Fault fault) {
  if (fault == Fault::STANDARD) {
    throw std::runtime_error("fault%s%n");
  }
  if (fault == Fault::FOREIGN) {
    throw 7;
  }
  if (fault == Fault::API) {
    throw NOndaroAPI::CAPIException("fault", "%s%n");
  }
}

/// Does the steps to the library, on a bus of its own and over the scripted platform. One a
/// process: the library's services live as long.
class Library {
 public:
  Library() {
    for (unsigned number = 0; number < 64; ++number) {
      m_slots.push_back({this, number});
    }
    m_fake.m_onStoreCall = [this] {
      const std::string call = std::exchange(m_fake.m_storeCalls, {}).back();
      Note("STORE", call);
      RaiseIf(m_fault);
      if (m_fault == Fault::NONE && call.rfind("set_", 0) == 0) {
        m_written.push_back(call.substr(call.find(' ') + 1));
      }
    };
    g_dbus_connection_set_exit_on_close(m_connection, FALSE);
    // The client before there is a daemon, whose properties it would ask for.
    m_client = OndaroFactory_GetIpcClientHandle();
    m_server = OndaroFactory_GetIpcServerHandle();
    m_config = OndaroFactory_GetSystemConfigHandle();
    if (!test::WaitUntil([] { return test::PlainPeer().Owner() != ""; })) {
      throw std::runtime_error("the name was not acquired");
    }
    Settle();
  }

  Lines Perform(const Step* step) {
    m_nScriptsLeft = SCRIPTS_PER_STEP;
    if (step != nullptr) {
      Do(*step);
    }
    Lines lines;
    const std::string name = g_dbus_connection_get_unique_name(m_connection);
    for (const SLogEntry& entry : m_fake.TakeLog()) {
      lines.push_back(Comparable(entry.Text()));
      if (const std::size_t at = lines.back().find(name); at != std::string::npos) {
        lines.back().replace(at, name.size(), "own");
      }
    }
    return lines;
  }

 private:
  struct Slot {
    Library* library;
    unsigned script;
  };

  void Note(const char* kind, const std::string& what) {
    m_fake.Record({0, 0, kind, "", "", "", 0, what});
  }

  void Do(const Step& step) {
    try {
      if (step.op < OPS_OF_CALLBACKS) {
        Note("RESULT", Call(step));
      } else if (step.op == CHANGE) {
        Change(step);
      } else if (step.op == FAIL) {
        m_fault = FaultOf(step);
        m_fake.m_areStoreCallsFailing = m_fault == Fault::STATUS;
      } else {
        Settle();
      }
    } catch (int) {
      Note("THROWN", "foreign");
    }
  }

  std::string Call(const Step& step) {
    const char* const key = KeyOf(step).property.c_str();
    const char* const name = EventNameOf(step).c_str();
    const char* const value = ValueOf(step).c_str();
    const auto callback = ScriptNumberOf(step) != NO_SCRIPT ? OnEvent : nullptr;
    Slot* const slot = &m_slots[ScriptNumberOf(step)];
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
    const std::string result = value != nullptr ? value + std::to_string(length) : "null";
    OndaroApi_SystemConfig_DestroyProperty(value);
    return result;
  }

  static void OnEvent(const char* data, void* slotOfScript) {
    const auto [library, number] = *static_cast<Slot*>(slotOfScript);
    const std::string before = data;
    library->Note("EVENT", std::to_string(number) + " " + before);
    if (library->m_nScriptsLeft-- <= 0) {
      return;
    }
    const Script script = ScriptOf(number);
    for (const Step& step : script.steps) {
      library->Do(step);
    }
    if (data != before) {
      library->Note("EVENT", "with data that is gone");
    }
    RaiseIf(script.ending);
  }

  void Change(const Step& step) {
    const std::string& key = KeyOf(step).store;
    const Content content = ContentOf(step);
    platform_settings_node unreadable{key, std::nullopt};
    if (content == Content::NO_NODE || content == Content::UNREADABLE) {
      m_fake.Notify(key, content == Content::NO_NODE ? nullptr : &unreadable);
    } else if (!key.empty()) {
      m_fake.Change(key, content == Content::NUMBER ? SettingsValue(Pick(NUMBERS, step.b))
                                                    : SettingsValue(ValueOf(step)));
    }
  }

  /// Every message is in the log when it is dispatched, so silence means that none is left.
  void Deliver() {
    for (int before = -1; before != m_fake.m_nLogCalls;) {
      before = m_fake.m_nLogCalls;
      test::SyncWithBus(m_connection);
      test::Drain();
    }
  }

  /// The store tells of the writes when all else has arrived; either may cause more.
  void Settle() {
    for (Deliver(); !m_written.empty(); Deliver()) {
      for (const std::string& key : std::exchange(m_written, {})) {
        platform_settings_node node{key, m_fake.m_values.at(key)};
        m_fake.Notify(key, &node);
      }
    }
  }

  FakePlatform& m_fake = FakePlatform::Get();
  GDBusConnection* const m_connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  std::vector<Slot> m_slots;
  int m_nScriptsLeft = 0;
  Fault m_fault = Fault::NONE;
  std::vector<std::string> m_written;  // keys whose subscribers are still to be told
  OndaroApi_SystemConfig_h m_config = nullptr;
  OndaroApi_IpcClient_h m_client = nullptr;
  OndaroApi_IpcServer_h m_server = nullptr;
};

}  // namespace

Performer MakeLibrary() {
  // Both outlive the services, which end with the process.
  static const test::PrivateBus bus;
  static auto* const library = new Library;
  return [](const Step* step) { return library->Perform(step); };
}

}  // namespace ondaro::model
