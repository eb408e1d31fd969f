#include <unistd.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <utility>

#include "bus/PlainPeer.h"
#include "bus/PrivateBus.h"
#include "bus/WaitUntil.h"
#include "library/FakePlatform.h"
#include "model/Step.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/api/CException.h"
#include "ondaro/pal/CPALFactory.h"

namespace ondaro::model {

namespace {

using NOndaroPAL::GetIpcClient;
using NOndaroPAL::GetIpcServer;
using NOndaroPAL::GetSystemConfig;

void Replace(std::string& text, const std::string& part, const std::string& by) {
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += by.size()) {
    text.replace(at, part.size(), by);
  }
}

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

template <typename Pointer>
Pointer UnlessNull(unsigned isNull, Pointer pointer) {
  return isNull != 0 ? nullptr : pointer;
}

std::string Text(bool result) { return result ? "true" : "false"; }

std::string Terminated(const char* bytes, std::size_t length) {
  return bytes[length] == '\0' ? std::string(bytes, length) : "without its final NUL";
}

void RaiseIf(Fault fault, const char* origin) {
  if (fault == Fault::STANDARD) {
    throw std::runtime_error(std::string(origin) + "%s%n");
  }
  if (fault == Fault::FOREIGN) {
    throw 7;
  }
  if (fault == Fault::API) {
    throw NOndaroAPI::CAPIException(origin, "fault");
  }
}

/// Does the steps to the library, on a bus of its own and over the scripted platform. One a
/// process: the library's services live as long.
class Library {
 public:
  explicit Library(Faults& faults) : m_faults(faults) {
    for (unsigned script = 0; script < SCRIPTS; ++script) {
      m_slots.push_back({this, script});
    }
    m_fake.m_onStoreCall = [this] {
      const std::string call = std::exchange(m_fake.m_storeCalls, {}).back();
      Note("STORE", call);
      RaiseIf(m_faults.store, "store");
      if (m_faults.store == Fault::NONE && call.rfind("set_", 0) == 0) {
        m_written.push_back(call.substr(call.find(' ') + 1));
      }
    };
    m_fake.m_onCdmCall = [this] {
      Note("CDM", std::exchange(m_fake.m_cdmCalls, {}).back());
      RaiseIf(m_faults.module, "module");
    };
  }

  /// Nothing may arrive when this is gone.
  ~Library() {
    m_nScriptsLeft = 0;
    Settle();
    for (OndaroApi_CoreAuthInfoRW_t& record : m_records) {
      OndaroApi_CoreAuth_DestroyCoreAuthInfo(&record);
    }
    m_fake.m_onStoreCall = m_fake.m_onCdmCall = nullptr;
    g_object_unref(m_connection);
  }

  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  Lines Perform(const Step& step) {
    m_nScriptsLeft = SCRIPTS_PER_STEP;
    Do(step);
    Lines lines;
    for (const SLogEntry& entry : m_fake.TakeLog()) {
      lines.push_back(Comparable(entry.Text()));
      Replace(lines.back(), m_ownName, "own");
      Replace(lines.back(), m_peer.UniqueName(), "peer");
    }
    return lines;
  }

 private:
  struct Slot {
    Library* library;
    unsigned script;
  };

  void Note(const std::string& kind, const std::string& what) {
    m_fake.Record({0, 0, kind, "", "", "", 0, what});
  }

  void Do(const Step& step) {
    switch (step.op) {
      case Op::SETTLE:
        return Settle();
      case Op::CHANGE:
        return Change(step);
      case Op::SCRIPT_STORE:
        m_faults.store = FaultOf(step.a);
        m_fake.m_areStoreCallsFailing = m_faults.store == Fault::STATUS;
        return;
      case Op::SCRIPT_MODULE:
        return ScriptModule(step);
      case Op::PEER_SIGNAL:
      case Op::PEER_CALL:
        return PeerSend(step);
      case Op::NAME:
        return GiveOrTakeName();
      default:
        break;
    }
    try {
      const std::string result =
          (HowOf(step) & WRAPPER) != 0 && HasWrapper(step) ? CallWrapper(step) : Call(step);
      for (const auto& [app, caller] : std::exchange(m_fake.m_groupRequests, {})) {
        Note("GROUP", std::to_string(app) + (caller == getpid() ? " own" : " other"));
      }
      if (step.op == Op::SERVER_SEND || step.op == Op::CLIENT_SEND) {
        AwaitArrival();
      }
      Note("RESULT", result);
    } catch (const std::exception& exception) {
      Note("THROWN", exception.what());
    } catch (...) {
      Note("THROWN", "foreign");
    }
    for (const OndaroApi_CoreAuthInfoRW_t& record : m_records) {
      if (step.op >= Op::GENERATE && record.data != nullptr) {
        Note("RECORD", Terminated(record.data, record.length));
      }
    }
  }

  /// The wrappers of the families that callbacks use, once they are there.
  bool HasWrapper(const Step& step) const {
    return step.op <= Op::UNWATCH       ? m_config != nullptr
           : step.op <= Op::SERVER_SEND ? m_server != nullptr
                                        : step.op < Op::SETTLE && m_client != nullptr;
  }

  std::string CallWrapper(const Step& step) {
    const std::string key = KeyOf(step), name = EventNameOf(step), value = ValueOf(step.b);
    switch (step.op) {
      case Op::GET:
        return GetSystemConfig().GetProperty(key);
      case Op::SET:
        return Text(GetSystemConfig().SetProperty(key, value));
      case Op::WATCH:
        return GetSystemConfig().RegisterEventHandler(key, HandlerOf(step)), "";
      case Op::UNWATCH:
        return GetSystemConfig().UnregisterEventHandler(key), "";
      case Op::SERVER_WATCH:
        return GetIpcServer().RegisterEventHandler(name, HandlerOf(step)), "";
      case Op::SERVER_UNWATCH:
        return GetIpcServer().UnregisterEventHandler(), "";
      case Op::SERVER_SEND:
        return GetIpcServer().SendDataToClient(name, value), "0";
      case Op::CLIENT_WATCH:
        return GetIpcClient().RegisterEventHandler(name, HandlerOf(step)), "";
      case Op::CLIENT_UNWATCH:
        return GetIpcClient().UnregisterEventHandler(), "";
      default:
        return GetIpcClient().SendDataToServer(name, value), "0";
    }
  }

  std::string Call(const Step& step) {
    const unsigned how = HowOf(step), isFirstNull = how & NULL_FIRST;
    const unsigned isSecondNull = how & NULL_SECOND, isHandleNull = how & NULL_HANDLE;
    auto* const config = UnlessNull(isHandleNull, m_config);
    auto* const server = UnlessNull(isHandleNull, m_server);
    auto* const client = UnlessNull(isHandleNull, m_client);
    auto* const auth = UnlessNull(isHandleNull, m_auth);
    const std::string keyText = KeyOf(step), nameText = EventNameOf(step);
    const std::string valueText = ValueOf(step.b);
    const char* const key = UnlessNull(isFirstNull, keyText.c_str());
    const char* const name = UnlessNull(isFirstNull, nameText.c_str());
    const char* const value = UnlessNull(isSecondNull, valueText.c_str());
    auto* const record = UnlessNull(isFirstNull, &m_records[step.a % RECORDS]);
    auto* const next = UnlessNull(isSecondNull, &m_records[(step.a + 1) % RECORDS]);
    const auto callback = ScriptNumberOf(step) != NO_SCRIPT ? OnEvent : nullptr;
    Slot* const slot = &m_slots[ScriptNumberOf(step)];
    switch (step.op) {
      case Op::GET:
        return Get(config, key, isSecondNull == 0);
      case Op::SET:
        return Text(OndaroApi_SystemConfig_SetProperty(config, key, value));
      case Op::WATCH:
        return OndaroApi_SystemConfig_RegisterEventHandler(config, key, callback, slot), "";
      case Op::UNWATCH:
        return OndaroApi_SystemConfig_UnregisterEventHandler(config, key), "";
      case Op::SERVER_WATCH:
        return OndaroApi_IpcServer_RegisterEventHandler(server, name, callback, slot), "";
      case Op::SERVER_UNWATCH:
        return OndaroApi_IpcServer_UnregisterEventHandler(server), "";
      case Op::SERVER_SEND:
        return std::to_string(OndaroApi_IpcServer_SendDataToClient(server, name, value));
      case Op::CLIENT_WATCH:
        return OndaroApi_IpcClient_RegisterEventHandler(client, name, callback, slot), "";
      case Op::CLIENT_UNWATCH:
        return OndaroApi_IpcClient_UnregisterEventHandler(client), "";
      case Op::CLIENT_SEND:
        return std::to_string(OndaroApi_IpcClient_SendDataToServer(client, name, value));
      case Op::CREATE:
        return Create(FamilyOf(step)) != nullptr ? "handle" : "null";
      case Op::GENERATE:
        return Text(OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(auth, record, next));
      case Op::SIGN:
        return Sign(auth, step);
      case Op::CHAIN:
        return Text(OndaroApi_CoreAuth_GetModelCertChain(auth, record));
      default:
        return OndaroApi_CoreAuth_DestroyCoreAuthInfo(record), "";
    }
  }

  static std::string Get(OndaroApi_SystemConfig_h handle, const char* key, bool isLengthGiven) {
    constexpr uint32_t UNTOUCHED = 42;
    uint32_t length = UNTOUCHED;
    const char* value =
        OndaroApi_SystemConfig_GetProperty(handle, key, isLengthGiven ? &length : nullptr);
    std::string result = value != nullptr      ? Terminated(value, length)
                         : length == UNTOUCHED ? "null"
                                               : "null with a length";
    OndaroApi_SystemConfig_DestroyProperty(value);
    return result;
  }

  const void* Create(Family family) {
    if (family == CONFIG) {
      return m_config = OndaroFactory_GetSystemConfigHandle();
    }
    if (family == AUTH) {
      return m_auth = OndaroFactory_GetCoreAuthHandle();
    }
    m_client = OndaroFactory_GetIpcClientHandle();
    if (family == CLIENT) {
      return m_client;
    }
    Settle();
    const bool isNew = m_server == nullptr;
    m_server = OndaroFactory_GetIpcServerHandle();
    if (isNew) {
      if (!test::WaitUntil([this] { return m_peer.Owner() == m_ownName; })) {
        throw std::runtime_error("the name was not acquired");
      }
      Deliver();
      m_ownsName = true;
    }
    return m_server;
  }

  std::function<void(const std::string&)> HandlerOf(const Step& step) {
    if (ScriptNumberOf(step) == NO_SCRIPT) {
      return nullptr;
    }
    // More than a handler holds in itself, so that a sanitizer sees when it is used too late.
    return [slot = m_slots[ScriptNumberOf(step)],
            bytes = std::array<char, 100>()](const std::string& data) {
      Slot copy = slot;
      OnEvent(data.c_str(), &copy);
      if (slot.script != copy.script || bytes.back() != '\0') {
        copy.library->Note("EVENT", "by a handler that is gone");
      }
    };
  }

  static void OnEvent(const char* data, void* slotOfScript) {
    const auto [library, number] = *static_cast<Slot*>(slotOfScript);
    const std::string before = data;
    library->Note("EVENT", std::to_string(number) + " " + before);
    if (library->m_nScriptsLeft-- <= 0) {
      return;
    }
    for (const Step& step : ScriptOf(number).steps) {
      library->Do(step);
    }
    if (data != before) {
      library->Note("EVENT", "with data that is gone");
    }
    RaiseIf(ScriptOf(number).ending, "script");
  }

  void Change(const Step& step) {
    const std::string key = StoreKeyOf(KeyOf(step));
    platform_settings_node unreadable{key, std::nullopt};
    if (!key.empty() && IsUnreadable(step)) {
      m_fake.Notify(key, &unreadable);
    } else if (!key.empty() && IsWithoutNode(step)) {
      m_fake.Notify(key, nullptr);
    } else if (!key.empty()) {
      const int* number = NumberOf(step);
      m_fake.Change(
          key, number != nullptr ? SettingsValue(*number) : SettingsValue(Cut(ValueOf(step.b))));
    }
  }

  void ScriptModule(const Step& step) {
    std::string* const texts[] = {&m_fake.m_key, &m_fake.m_cert, &m_fake.m_sign,
                                  &m_fake.m_systemId};
    const unsigned what = step.a % 10;
    const bool flag = step.b % 2 == 0;
    if (what < 4) {
      *texts[what] = ValueOf(step.b);
    } else if (what == 4) {
      m_fake.m_supportStatus = flag ? 11 : 1 - static_cast<int>(step.b);
    } else if (what == 5) {
      m_fake.m_isCreateFailing = flag;
    } else if (what == 6) {
      m_fake.m_hasKeyInterface = flag;
    } else if (what == 7) {
      m_fake.m_setGroupResult = flag ? 0 : 1;
      m_fake.m_appPid = flag ? 4711 : -1;
    } else {
      m_faults.module = FaultOf(step.b);
      m_fake.m_operationStatus = m_faults.module == Fault::STATUS ? 3 : 0;
    }
  }

  std::string Sign(OndaroApi_CoreAuth_h auth, const Step& step) {
    const unsigned how = HowOf(step);
    const std::string keyBytes = ValueOf(step.a), hashBytes = ValueOf(step.b);
    const OndaroApi_CoreAuthInfoRO_t broken = {nullptr, 1};
    const OndaroApi_CoreAuthInfoRO_t givenKey = {keyBytes.data(), uint32_t(keyBytes.size())};
    const OndaroApi_CoreAuthInfoRO_t givenHash = {hashBytes.data(), uint32_t(hashBytes.size())};
    const auto* const key = IsKeyBroken(step) ? &broken : &givenKey;
    const auto* const hash = IsHashBroken(step) ? &broken : &givenHash;
    // An old signature is overwritten, and its buffer stays the caller's.
    OndaroApi_CoreAuthInfoRW_t& sign = m_records[step.c % RECORDS];
    OndaroApi_CoreAuthInfoRW_t old = sign;
    const bool isSigned = OndaroApi_CoreAuth_SignHash(auth, UnlessNull(how & NULL_FIRST, key),
                                                      UnlessNull(how & NULL_SECOND, hash),
                                                      UnlessNull(how & NULL_THIRD, &sign));
    if (isSigned) {
      m_fake.m_isLogDiscarded = true;
      OndaroApi_CoreAuth_DestroyCoreAuthInfo(&old);
      m_fake.m_isLogDiscarded = false;
    }
    return Text(isSigned);
  }

  // ---- Messaging --------------------------------------------------------------------------------

  /// An event is on its way to the handlers of this moment, not of those when it is delivered.
  /// Without an object GLib's own thread refuses a call, which the bus carries back once more.
  void AwaitArrival() {
    test::SyncWithBus(m_connection);
    if (m_hasLostName) {
      test::SyncWithBus(m_connection);
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

  void Settle() {
    for (Deliver(); !m_written.empty(); Deliver()) {
      for (const std::string& key : std::exchange(m_written, {})) {
        platform_settings_node node{key, m_fake.m_values.at(key)};
        m_fake.Notify(key, &node);
      }
    }
  }

  void PeerSend(const Step& step) {
    const std::string name = PeerText(EventNameOf(step)), data = PeerText(ValueOf(step.b));
    const GVariantType* type = G_VARIANT_TYPE(TypeOf(step));
    Settle();
    GVariant* body = std::string(TypeOf(step)) == "(ss)"
                         ? g_variant_new("(ss)", name.c_str(), data.c_str())
                         : g_variant_new_from_data(type, "", 0, FALSE, nullptr, nullptr);  // zeros
    if (step.op == Op::PEER_SIGNAL) {
      m_peer.Emit(body);
      return Settle();
    }
    const std::string answer = m_peer.Call(body);
    Settle();
    Note("RESULT", answer.rfind("error", 0) == 0 ? "error" : answer);
  }

  void GiveOrTakeName() {
    Settle();
    if (m_server == nullptr) {
      return;
    }
    m_ownsName = !m_ownsName;
    m_hasLostName = true;
    GVariant* arguments = m_ownsName ? g_variant_new("(su)", test::BUS_NAME, 0)
                                     : g_variant_new("(s)", test::BUS_NAME);
    g_variant_unref(g_dbus_connection_call_sync(
        m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        m_ownsName ? "RequestName" : "ReleaseName", arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
        nullptr, nullptr));
    Deliver();
  }

  static GDBusConnection* Connect() {
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    return connection;
  }

  FakePlatform& m_fake = FakePlatform::Get();
  test::PrivateBus m_bus;
  test::PlainPeer m_peer;
  GDBusConnection* const m_connection = Connect();
  const std::string m_ownName = g_dbus_connection_get_unique_name(m_connection);
  std::vector<Slot> m_slots;
  int m_nScriptsLeft = 0;
  Faults& m_faults;
  std::vector<std::string> m_written;
  bool m_ownsName = false, m_hasLostName = false;

  OndaroApi_SystemConfig_h m_config = nullptr;
  OndaroApi_CoreAuth_h m_auth = nullptr;
  OndaroApi_IpcClient_h m_client = nullptr;
  OndaroApi_IpcServer_h m_server = nullptr;
  OndaroApi_CoreAuthInfoRW_t m_records[RECORDS] = {};
};

}  // namespace

Performer MakeLibrary(Faults& faults) {
  const auto library = std::make_shared<Library>(faults);
  return [library](const Step& step) { return library->Perform(step); };
}

}  // namespace ondaro::model
