#include "model/Library.h"

#include <array>
#include <stdexcept>
#include <utility>

#include "bus/WaitUntil.h"
#include "ondaro/api/CException.h"
#include "ondaro/pal/CPALFactory.h"

namespace ondaro::model {

namespace {

void Replace(std::string& text, const std::string& part, const std::string& by) {
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += by.size()) {
    text.replace(at, part.size(), by);
  }
}

/// Without what differs from run to run, the bus library's wording of errors, and all of a
/// signature text but the name: other tests hold those against the exported functions.
std::string Comparable(std::string line) {
  static const std::string error = "g_dbus_proxy_call_finish error : ";
  const std::size_t at = line.find(error);
  if (at != std::string::npos) {
    line.resize(at + error.size());
  }
  for (std::size_t start = 0; (start = line.find("0x", start)) != std::string::npos; start += 2) {
    const std::size_t end = line.find_first_not_of("0123456789abcdef", start + 2);
    line.erase(start + 2, end == std::string::npos ? end : end - start - 2);
  }
  const std::size_t signatureEnd = line.find("Ondaro") < line.size() ? line.find(")]") : line.npos;
  if (signatureEnd != std::string::npos) {
    const std::size_t start = line.rfind('[', signatureEnd) + 1;
    const std::size_t arguments = line.find('(', start);
    line.erase(arguments, signatureEnd + 1 - arguments);
    const std::size_t name = line.rfind(' ', arguments) + 1;
    if (name > start) {
      line.erase(start, name - start);
    }
  }
  return line;
}

std::string Text(bool result) { return result ? "true" : "false"; }

std::string BytesOf(const OndaroApi_CoreAuthInfoRW_t& record) {
  if (record.data[record.length] != '\0') {
    return "without its final NUL";
  }
  return {record.data, record.length};
}

}  // namespace

Library::Library() {
  GError* error = nullptr;
  m_connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (m_connection == nullptr) {
    throw std::runtime_error(error->message);
  }
  g_dbus_connection_set_exit_on_close(m_connection, FALSE);
  m_ownName = g_dbus_connection_get_unique_name(m_connection);
  for (unsigned script = 0; script < SCRIPTS; ++script) {
    m_slots.push_back({this, script});
  }

  m_fake.m_onStoreCall = [this] {
    const std::string call = m_fake.m_storeCalls.back();
    m_fake.m_storeCalls.clear();
    Note("STORE", call);
    RaiseIf(m_storeFault, "store");
    if (m_storeFault == Fault::NONE && call.rfind("set_", 0) == 0) {
      m_written.push_back(call.substr(call.find(' ') + 1));
    }
  };
  m_fake.m_onCdmCall = [this] {
    const std::string call = m_fake.m_cdmCalls.back();
    m_fake.m_cdmCalls.clear();
    Note("CDM", call);
    RaiseIf(m_moduleFault, "module");
  };
}

Library::~Library() {
  for (OndaroApi_CoreAuthInfoRW_t& record : m_records) {
    OndaroApi_CoreAuth_DestroyCoreAuthInfo(&record);
  }
  m_fake.m_onStoreCall = nullptr;
  m_fake.m_onCdmCall = nullptr;
  g_object_unref(m_connection);
}

void Library::Finish() {
  m_nScriptsLeft = 0;
  Settle();
}

void Library::Note(const std::string& kind, const std::string& what) {
  m_fake.Record({0, 0, kind, "", "", "", 0, what});
}

std::vector<std::string> Library::Perform(const Step& step) {
  m_nScriptsLeft = SCRIPTS_PER_STEP;
  Do(step);
  std::vector<std::string> lines;
  for (const SLogEntry& entry : m_fake.TakeLog()) {
    std::string line = Comparable(entry.Text());
    if (entry.function == "BusInterfaceMethodCallback" || entry.function == "_DbusSignalCallback") {
      Replace(line, ":" + m_ownName + (entry.priority == 4 ? " " : ","),
              std::string(":own") + (entry.priority == 4 ? " " : ","));
      Replace(line, m_peer.UniqueName(), "peer");
    }
    lines.push_back(line);
  }
  return lines;
}

void Library::Do(const Step& step) {
  switch (step.op) {
    case Op::SETTLE:
      return Settle();
    case Op::CHANGE:
      return Change(step);
    case Op::SCRIPT_STORE:
      m_storeFault = FaultOf(step.a);
      m_fake.m_areStoreCallsFailing = m_storeFault == Fault::STATUS;
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
    const std::string result = IsWrapperCall(step) ? CallWrapper(step) : Call(step);
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
      Note("RECORD", BytesOf(record));
    }
  }
}

bool Library::IsWrapperCall(const Step& step) const {
  if (HowOf(step) != How::WRAPPER || step.op >= Op::SETTLE) {
    return false;
  }
  if (step.op <= Op::UNWATCH) {
    return m_config != nullptr;
  }
  return step.op <= Op::SERVER_SEND ? m_server != nullptr : m_client != nullptr;
}

std::string Library::Call(const Step& step) {
  const How how = HowOf(step);
  const bool isGiven = how != How::NULL_HANDLE;
  auto* const config = isGiven ? m_config : nullptr;
  auto* const server = isGiven ? m_server : nullptr;
  auto* const client = isGiven ? m_client : nullptr;
  const std::string key = KeyOf(step), name = EventNameOf(step), value = ValueOf(step.b);
  const bool isFirstGiven = how != How::NULL_FIRST;
  const char* const keyText = isFirstGiven ? key.c_str() : nullptr;
  const char* const nameText = isFirstGiven ? name.c_str() : nullptr;
  const char* const valueText = how != How::NULL_SECOND ? value.c_str() : nullptr;
  OndaroApi_CoreAuthInfoRW_t* const record = isFirstGiven ? &m_records[step.a % RECORDS] : nullptr;
  const unsigned script = ScriptNumberOf(step);
  const auto callback = script != NO_SCRIPT ? OnEvent : nullptr;
  Slot* const slot = &m_slots[script];
  switch (step.op) {
    case Op::GET:
      return Get(config, keyText, how != How::NULL_SECOND);
    case Op::SET:
      return Text(OndaroApi_SystemConfig_SetProperty(config, keyText, valueText));
    case Op::WATCH:
      return OndaroApi_SystemConfig_RegisterEventHandler(config, keyText, callback, slot), "";
    case Op::UNWATCH:
      return OndaroApi_SystemConfig_UnregisterEventHandler(config, keyText), "";
    case Op::SERVER_WATCH:
      return OndaroApi_IpcServer_RegisterEventHandler(server, nameText, callback, slot), "";
    case Op::SERVER_UNWATCH:
      return OndaroApi_IpcServer_UnregisterEventHandler(server), "";
    case Op::SERVER_SEND:
      return std::to_string(OndaroApi_IpcServer_SendDataToClient(server, nameText, valueText));
    case Op::CLIENT_WATCH:
      return OndaroApi_IpcClient_RegisterEventHandler(client, nameText, callback, slot), "";
    case Op::CLIENT_UNWATCH:
      return OndaroApi_IpcClient_UnregisterEventHandler(client), "";
    case Op::CLIENT_SEND:
      return std::to_string(OndaroApi_IpcClient_SendDataToServer(client, nameText, valueText));
    case Op::CREATE:
      return Create(FamilyOf(step));
    case Op::GENERATE:
      return Text(OndaroApi_CoreAuth_GenerateDeviceKeyAndCert(
          isGiven ? m_auth : nullptr, record,
          how != How::NULL_SECOND ? &m_records[(step.a + 1) % RECORDS] : nullptr));
    case Op::SIGN:
      return Sign(step);
    case Op::CHAIN:
      return Text(OndaroApi_CoreAuth_GetModelCertChain(isGiven ? m_auth : nullptr, record));
    default:
      return OndaroApi_CoreAuth_DestroyCoreAuthInfo(record), "";
  }
}

std::string Library::CallWrapper(const Step& step) {
  const std::string key = KeyOf(step), name = EventNameOf(step), value = ValueOf(step.b);
  switch (step.op) {
    case Op::GET:
      return NOndaroPAL::GetSystemConfig().GetProperty(key);
    case Op::SET:
      return Text(NOndaroPAL::GetSystemConfig().SetProperty(key, value));
    case Op::WATCH:
      return NOndaroPAL::GetSystemConfig().RegisterEventHandler(key, HandlerOf(step)), "";
    case Op::UNWATCH:
      return NOndaroPAL::GetSystemConfig().UnregisterEventHandler(key), "";
    case Op::SERVER_WATCH:
      return NOndaroPAL::GetIpcServer().RegisterEventHandler(name, HandlerOf(step)), "";
    case Op::SERVER_UNWATCH:
      return NOndaroPAL::GetIpcServer().UnregisterEventHandler(), "";
    case Op::SERVER_SEND:
      return NOndaroPAL::GetIpcServer().SendDataToClient(name, value), "0";
    case Op::CLIENT_WATCH:
      return NOndaroPAL::GetIpcClient().RegisterEventHandler(name, HandlerOf(step)), "";
    case Op::CLIENT_UNWATCH:
      return NOndaroPAL::GetIpcClient().UnregisterEventHandler(), "";
    default:
      return NOndaroPAL::GetIpcClient().SendDataToServer(name, value), "0";
  }
}

std::string Library::Get(OndaroApi_SystemConfig_h handle, const char* key, bool isLengthGiven) {
  uint32_t length = 0;
  const char* value =
      OndaroApi_SystemConfig_GetProperty(handle, key, isLengthGiven ? &length : nullptr);
  const std::string result = value == nullptr        ? "null"
                             : value[length] != '\0' ? "without its final NUL"
                                                     : std::string(value, length);
  OndaroApi_SystemConfig_DestroyProperty(value);
  return result;
}

std::string Library::Create(Family family) {
  const void* handle = nullptr;
  if (family == CONFIG) {
    handle = m_config = OndaroFactory_GetSystemConfigHandle();
  } else if (family == AUTH) {
    handle = m_auth = OndaroFactory_GetCoreAuthHandle();
  } else {
    handle = m_client = OndaroFactory_GetIpcClientHandle();
  }
  if (family == SERVER) {
    Settle();
    const bool isNew = m_server == nullptr;
    handle = m_server = OndaroFactory_GetIpcServerHandle();
    if (isNew && !test::WaitUntil([this] { return m_peer.Owner() == m_ownName; })) {
      throw std::runtime_error("the name was not acquired");
    }
    if (isNew) {
      Deliver();
    }
    m_ownsName = m_ownsName || isNew;
  }
  return handle != nullptr ? "handle" : "null";
}

Library::Handler Library::HandlerOf(const Step& step) {
  const unsigned script = ScriptNumberOf(step);
  if (script == NO_SCRIPT) {
    return nullptr;
  }
  // More than a handler holds in itself, so that a sanitizer sees when it is used too late.
  return [this, slot = m_slots[script], bytes = std::array<char, 100>()](const std::string& data) {
    Slot copy = slot;
    OnEvent(data.c_str(), &copy);
    if (slot.script != copy.script || bytes.back() != '\0') {
      Note("EVENT", "by a handler that is gone");
    }
  };
}

void Library::OnEvent(const char* data, void* slotOfScript) {
  const Slot slot = *static_cast<Slot*>(slotOfScript);
  Library& self = *slot.library;
  self.Note("EVENT", std::to_string(slot.script) + " " + data);
  if (self.m_nScriptsLeft-- <= 0) {
    return;
  }
  const Script& script = ScriptOf(slot.script);
  const std::string before = data;
  for (const Step& step : script.steps) {
    self.Do(step);
  }
  if (data != before) {
    self.Note("EVENT", "with data that is gone");
  }
  RaiseIf(script.ending, "script");
}

void Library::RaiseIf(Fault fault, const char* origin) {
  if (fault == Fault::STANDARD) {
    throw std::runtime_error(origin);
  }
  if (fault == Fault::FOREIGN) {
    throw 7;
  }
  if (fault == Fault::API) {
    throw NOndaroAPI::CAPIException(origin, "fault");
  }
}

// ---- Properties and authentication --------------------------------------------------------------

void Library::Change(const Step& step) {
  const std::string key = StoreKeyOf(KeyOf(step));
  if (key.empty()) {
    return;
  }
  if (IsWithoutNode(step)) {
    return m_fake.Notify(key, nullptr);
  }
  if (!IsUnreadable(step)) {
    const int* number = NumberOf(step);
    return m_fake.Change(
        key, number != nullptr ? SettingsValue(*number) : SettingsValue(Cut(ValueOf(step.b))));
  }
  platform_settings_node node{key, std::nullopt};
  m_fake.Notify(key, &node);
}

void Library::ScriptModule(const Step& step) {
  std::string* const texts[] = {&m_fake.m_key, &m_fake.m_cert, &m_fake.m_sign, &m_fake.m_systemId};
  const unsigned what = step.a % 10;
  const bool flag = step.b % 2 == 0;
  if (what < 4) {
    *texts[what] = ValueOf(step.b);
  }
  if (what == 4) {
    m_fake.m_supportStatus = flag ? 11 : 0;
  }
  if (what == 5) {
    m_fake.m_isCreateFailing = flag;
  }
  if (what == 6) {
    m_fake.m_hasKeyInterface = flag;
  }
  if (what == 7) {
    m_fake.m_setGroupResult = flag ? 0 : 1;
  }
  if (what > 7) {
    m_moduleFault = FaultOf(step.b);
    m_fake.m_operationStatus = m_moduleFault == Fault::STATUS ? 3 : 0;
  }
}

std::string Library::Sign(const Step& step) {
  const How how = HowOf(step);
  const std::string keyBytes = ValueOf(step.a), hashBytes = ValueOf(step.b);
  const OndaroApi_CoreAuthInfoRO_t key = {keyBytes.data(), static_cast<uint32_t>(keyBytes.size())};
  OndaroApi_CoreAuthInfoRO_t hash = {hashBytes.data(), static_cast<uint32_t>(hashBytes.size())};
  if (IsHashBroken(step)) {
    hash = {nullptr, 1};
  }
  // An old signature is overwritten, and its buffer stays the caller's.
  OndaroApi_CoreAuthInfoRW_t& sign = m_records[step.c % RECORDS];
  OndaroApi_CoreAuthInfoRW_t old = sign;
  const bool isSigned = OndaroApi_CoreAuth_SignHash(
      how != How::NULL_HANDLE ? m_auth : nullptr, how != How::NULL_FIRST ? &key : nullptr,
      how != How::NULL_SECOND ? &hash : nullptr, &sign);
  if (isSigned) {
    m_fake.m_isLogDiscarded = true;
    OndaroApi_CoreAuth_DestroyCoreAuthInfo(&old);
    m_fake.m_isLogDiscarded = false;
  }
  return Text(isSigned);
}

// ---- Messaging ----------------------------------------------------------------------------------

void Library::CallBus(const char* member, GVariant* arguments) {
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(
      m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", member,
      arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
  if (reply == nullptr) {
    throw std::runtime_error(error->message);
  }
  g_variant_unref(reply);
}

/// An event is on its way to the handlers of this moment, not of those when it is delivered.
/// Without an object GLib's own thread refuses a call, which the bus carries back once more.
void Library::AwaitArrival() {
  Barrier();
  if (m_hasLostName) {
    Barrier();
  }
}

/// Every message is in the log when it is dispatched, so silence means that none is left.
void Library::Deliver() {
  for (int before = -1; before != m_fake.m_nLogCalls;) {
    before = m_fake.m_nLogCalls;
    Barrier();
    test::Drain();
  }
}

void Library::Settle() {
  for (Deliver(); !m_written.empty(); Deliver()) {
    for (const std::string& key : std::exchange(m_written, {})) {
      platform_settings_node node{key, m_fake.m_values.at(key)};
      m_fake.Notify(key, &node);
    }
  }
}

void Library::PeerSend(const Step& step) {
  const std::string name = PeerText(EventNameOf(step)), data = PeerText(ValueOf(step.b));
  const std::string type = TypeOf(step);
  Settle();
  GVariantBuilder body;
  g_variant_builder_init(&body, G_VARIANT_TYPE(type.c_str()));
  const std::string* text = &name;
  for (const char* argument = type.c_str() + 1; *argument != ')'; ++argument) {
    if (*argument == 's') {
      g_variant_builder_add(&body, "s", text->c_str());
    }
    if (*argument == 'i') {
      g_variant_builder_add(&body, "i", 5);
    }
    if (*argument == 'v') {
      g_variant_builder_add(&body, "v", g_variant_new_boolean(TRUE));
    }
    text = &data;
  }
  if (step.op == Op::PEER_SIGNAL) {
    m_peer.Emit(g_variant_builder_end(&body));
    return Settle();
  }
  const std::string answer = m_peer.Call(g_variant_builder_end(&body));
  Settle();
  Note("RESULT", answer.rfind("error", 0) == 0 ? "error" : answer);
}

void Library::GiveOrTakeName() {
  Settle();
  if (m_server == nullptr) {
    return;
  }
  m_ownsName = !m_ownsName;
  m_hasLostName = true;
  if (m_ownsName) {
    CallBus("RequestName", g_variant_new("(su)", test::BUS_NAME, 0));
  } else {
    CallBus("ReleaseName", g_variant_new("(s)", test::BUS_NAME));
  }
  Deliver();
}

}  // namespace ondaro::model
