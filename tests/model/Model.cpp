#include <unistd.h>

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <variant>

#include "library/FakePlatform.h"
#include "model/Step.h"

namespace ondaro::model {

namespace {

constexpr int DEBUG = 3, INFO = 4, ERROR = 6;
constexpr const char *API = "ONDARO_API", *PAL = "ONDARO_PAL";
const std::string BUS_NAME = "com.halvex.tv.ondaro", BUS_PATH = "/com/halvex/tv/ondaro";
const std::string COMPLETION = "_SendDataToServerAyncResultCallback";
const std::string NULL_TEXT = "basic_string: construction from null is not valid";
const std::string INVALID_CASE = "PAL Exception: InvalidCase: ";
const std::map<std::string, int> USAGE = {{"false", 0}, {"default", 1}, {"true", 2}, {"set", 3}};
const std::string FAMILIES[] = {"SystemConfig", "CoreAuth", "IpcClient", "IpcServer"};

// Handlers are scripts by their number, or one of these.
constexpr int DOES_NOTHING = 0, EMPTY_FUNCTION = -1;

int HandlerOf(const Step& step) {
  const auto script = static_cast<int>(ScriptNumberOf(step));
  return script == int(NO_SCRIPT) && HowOf(step) == WRAPPER ? EMPTY_FUNCTION : script;
}

using Value = std::variant<std::string, int>;

std::string FlagText(int number) { return number == 1 ? "true" : "false"; }

std::string UsageText(int number) {
  const auto word = std::find_if(USAGE.begin(), USAGE.end(),
                                 [&](const auto& entry) { return entry.second == number; });
  return word != USAGE.end() ? word->first : "";
}

/// A property that the settings store holds.
struct Property {
  std::string name;
  std::string (*toText)(int);  // null for a text
  std::string callback;        // entered on changes; empty without
  bool isFiltered;
  std::string key = StoreKeyOf(name);
};

const Property* Find(const std::string& nameOrKey) {
  static const Property properties[] = {
      {"ONDARO_INIT", FlagText, "", false},
      {"ONDARO_SUPPORT", FlagText, "OndaroSupport", false},
      {"ONDARO_ENROLLMENT", nullptr, "OndaroEnrollment", true},
      {"ONDARO_STATUS", nullptr, "OndaroStatus", true},
      {"ONDARO_TOS_STATUS", nullptr, "OndaroToSStatus", false},
      {"ONDARO_CLEAR_DATA", FlagText, "OndaroClearData", false},
      {"ONDARO_ENABLE_USAGE_RPT", UsageText, "OndaroEnableUsageRpt", false},
      {"WIDEVINE_ONDARO_VERSION", nullptr, "OndaroWidevineOndaroVersion", true},
      {"WIDEVINE_ONDARO_SUPPORT", nullptr, "OndaroWidevineOndaroSupport", true}};
  const auto* found =
      std::find_if(std::begin(properties), std::end(properties), [&](const Property& property) {
        return nameOrKey == property.name || nameOrKey == property.key;
      });
  return found != std::end(properties) ? found : nullptr;
}

/// An exported function, what it returns when it fails, the pointers that it tests before others,
/// and those that it makes a string of.
struct Function {
  Op op;
  Family family;
  std::string name;
  std::string failure;
  std::vector<std::string> required;
  unsigned strings = 0;

  std::string FullName() const { return "OndaroApi_" + FAMILIES[family] + "_" + name; }
};

const Function& FunctionOf(Op op) {
  static const Function functions[] = {
      {Op::GET, CONFIG, "GetProperty", "null", {"key", "pLength"}},
      {Op::SET, CONFIG, "SetProperty", "false", {"key", "val"}},
      {Op::WATCH, CONFIG, "RegisterEventHandler", "", {}, 1},
      {Op::UNWATCH, CONFIG, "UnregisterEventHandler", "", {}, 1},
      {Op::SERVER_WATCH, SERVER, "RegisterEventHandler", "", {}, 1},
      {Op::SERVER_UNWATCH, SERVER, "UnregisterEventHandler", "", {}},
      {Op::SERVER_SEND, SERVER, "SendDataToClient", "-1", {}, 2},
      {Op::CLIENT_WATCH, CLIENT, "RegisterEventHandler", "", {}, 1},
      {Op::CLIENT_UNWATCH, CLIENT, "UnregisterEventHandler", "", {}},
      {Op::CLIENT_SEND, CLIENT, "SendDataToServer", "-1", {}, 2},
      {Op::GENERATE, AUTH, "GenerateDeviceKeyAndCert", "false", {"key", "cert"}},
      {Op::SIGN, AUTH, "SignHash", "false", {"key", "hash", "sign"}},
      {Op::CHAIN, AUTH, "GetModelCertChain", "false", {"certChain"}},
      {Op::DESTROY, AUTH, "DestroyCoreAuthInfo", "", {"authInfo"}}};
  return *std::find_if(std::begin(functions), std::end(functions),
                       [op](const Function& function) { return function.op == op; });
}

/// What the library is to do: its results, its events and its log, one after the other. Shares no
/// code with it.
class Model {
 public:
  explicit Model(const Faults& faults) : m_faults(faults) {}

  Lines Perform(const Step& step) {
    m_nScriptsLeft = SCRIPTS_PER_STEP;
    Do(step);
    return std::exchange(m_lines, {});
  }

 private:
  struct Raised {
    enum Kind { BROKEN, OF_API, STANDARD, FOREIGN } kind;
    std::string text;
    std::string detail = {};
  };

  struct Message {
    std::string sender, name, data, type = "(ss)";
  };

  /// A traced function: "Entered" now and "Left" on every way out.
  class Scope {
   public:
    Scope(Model& model, const char* tag, const std::string& name, int priority = INFO)
        : m_model(model), m_tag(tag), m_nPriority(priority), m_signature("[" + name + "()]") {
      m_tracer = tag == API ? "ONDARO_API_CALL_TRACER" : "ONDAROCALLTRACE";
      m_tracer += priority == ERROR ? "_ERROR" : "";
      m_model.Log(m_nPriority, m_tag, m_tracer, m_signature + "Entered ");
    }
    ~Scope() { m_model.Log(m_nPriority, m_tag, "~" + m_tracer, m_signature + "Left"); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    Model& m_model;
    const char* m_tag;
    int m_nPriority;
    std::string m_signature, m_tracer;
  };

  void Log(int priority, const std::string& tag, const std::string& function,
           const std::string& body) {
    m_lines.push_back(std::to_string(priority) + " " + tag + " " + function + ": " + body);
  }
  void Note(const std::string& kind, const std::string& what) { Log(0, kind, "", what); }
  void Error(const std::string& function, const std::string& body) {
    Log(ERROR, PAL, function, body);
  }
  /// What a function of the authentication fails with.
  const char* Refuse(const char* function, const std::string& body) {
    return Log(ERROR, API, function, body), "false";
  }

  // ---- Steps and the frame of the exported functions --------------------------------------------

  void Do(const Step& step) {
    switch (step.op) {
      case Op::SETTLE:
        return Settle();
      case Op::CHANGE:
        return Change(step);
      case Op::SCRIPT_STORE:
      case Op::SCRIPT_MODULE:
        return;  // the platform's matter
      case Op::PEER_SIGNAL:
      case Op::PEER_CALL:
        return PeerSend(step);
      case Op::NAME:
        return GiveOrTakeName();
      default:
        break;
    }
    try {
      const std::string result = step.op == Op::CREATE ? Create(FamilyOf(step)) : Call(step);
      if (std::exchange(m_isGroupSet, false)) {
        Note("GROUP", std::to_string(m_platform.m_appPid) + " own");
      }
      Note("RESULT", result);
    } catch (const Raised& raised) {
      Note("THROWN", raised.kind == Raised::FOREIGN ? "foreign" : raised.text);
    }
    for (const auto& record : m_records) {
      if (step.op >= Op::GENERATE && record) {
        Note("RECORD", *record);
      }
    }
  }

  std::string Call(const Step& step) {
    const Function& function = FunctionOf(step.op);
    const bool hasHandle = (HowOf(step) & NULL_HANDLE) == 0 && m_hasHandle[function.family];
    if (HowOf(step) == WRAPPER && hasHandle && step.op < Op::SETTLE) {
      return Body(step, ValueOf(step.b));
    }
    const std::string name = function.FullName();
    const Scope scope(*this, API, name);
    try {
      Check(step, function, hasHandle);
      return step.op == Op::DESTROY ? Destroy(step) : Body(step, Cut(ValueOf(step.b)));
    } catch (const Raised& raised) {
      if (raised.kind == Raised::FOREIGN) {
        throw;
      }
      if (raised.kind == Raised::BROKEN) {
        Log(ERROR, API, name, raised.text + " is null in [" + name + "()]");
      } else if (raised.kind != Raised::OF_API || !raised.text.empty()) {
        const std::string detail = step.op == Op::SET ? "" : raised.detail;
        Log(ERROR, API, name, "exception : " + raised.text + detail);
      }
      return function.failure;
    }
  }

  /// What an exported function refuses, in this order.
  void Check(const Step& step, const Function& function, bool hasHandle) {
    const auto isNull = [&](unsigned index) { return (HowOf(step) >> index & 1U) != 0; };
    for (unsigned index = 0; index < function.required.size(); ++index) {
      if (isNull(index)) {
        throw Raised{Raised::BROKEN, function.required[index]};
      }
    }
    if (step.op == Op::CLIENT_WATCH && ScriptNumberOf(step) == NO_SCRIPT) {
      throw Raised{Raised::OF_API, "apicallback is null", "(api/callback is null)"};
    }
    for (const unsigned offset : {0U, 1U}) {
      if (step.op == Op::GENERATE && m_records[(step.a + offset) % RECORDS]) {
        Refuse("_GenerateDeviceKeyAndCert",
               "return by [" + function.required[offset] + " is not empty]");
        throw Raised{Raised::OF_API, ""};  // already told
      }
    }
    if (!hasHandle && step.op != Op::DESTROY) {
      throw Raised{Raised::BROKEN, "handle"};
    }
    for (unsigned index = 0; index < function.strings; ++index) {
      if (isNull(index)) {
        throw Raised{Raised::STANDARD, NULL_TEXT};
      }
    }
  }

  /// What the wrapper does, which the exported function reaches once its arguments are accepted.
  std::string Body(const Step& step, const std::string& value) {
    const std::string name = EventNameOf(step);
    const Function& function = FunctionOf(step.op);
    std::optional<Scope> wrapper, implementation;
    if (function.family == SERVER || function.family == CLIENT) {
      const std::string type = "C" + FAMILIES[function.family];
      wrapper.emplace(*this, API, "NOndaroAPI::" + type + "::" + function.name);
      if (step.op != Op::CLIENT_UNWATCH) {
        const bool isLoud = step.op == Op::SERVER_WATCH || step.op == Op::SERVER_UNWATCH;
        implementation.emplace(*this, PAL, "NOndaroPAL::" + type + "Impl::" + function.name,
                               isLoud ? ERROR : INFO);
      }
    }
    switch (step.op) {
      case Op::GET:
        return Get(KeyOf(step));
      case Op::SET:
        return Set(KeyOf(step), value) ? "true" : "false";
      case Op::WATCH:
        return Watch(KeyOf(step), HandlerOf(step)), "";
      case Op::UNWATCH:
        return Unwatch(KeyOf(step)), "";
      case Op::SERVER_WATCH:
        m_serverHandlers[name] = HandlerOf(step);
        return "";
      case Op::SERVER_UNWATCH:
        return m_serverHandlers.clear(), "";
      case Op::SERVER_SEND:
        return ServerSend(name, value), "0";
      case Op::CLIENT_WATCH:
        m_subscription = m_subscription != 0 ? m_subscription : ++m_nSubscriptions;
        m_clientHandlers[name] = HandlerOf(step);
        return "";
      case Op::CLIENT_UNWATCH:
        m_subscription = 0;
        return m_clientHandlers.clear(), "";
      case Op::CLIENT_SEND:
        return ClientSend(name, value), "0";
      case Op::GENERATE:
        return Generate(step);
      case Op::SIGN:
        return Sign(step);
      default:
        return "true";  // the certificate chain
    }
  }

  void Construct(Family family) {
    if (m_isCreated[family]) {
      return;
    }
    const std::string type = "C" + FAMILIES[family];
    const std::string implementation = "NOndaroPAL::" + type + "Impl::";
    {
      const Scope scope(*this, PAL, implementation + type + "Impl");
      if (family == CONFIG) {
        Log(INFO, PAL, "CSystemConfigImpl", "Chip: NONE");
        Log(INFO, PAL, "_PrintPropertyMap", "SDR: 1");
        for (const std::string map : {"GetFunctionMap", "SetFunctionMap", "CbManagerMap"}) {
          const Scope init(*this, PAL, std::string(implementation).append("_Init").append(map));
        }
      } else if (family == AUTH) {
        OpenModule();
      } else if (family == SERVER) {
        Log(DEBUG, PAL, "CIpcServerImpl", "g_bus_own_name return: 1");
      }
    }
    const Scope scope(*this, API, "NOndaroAPI::" + type + "::" + type);
    m_isCreated[family] = true;
  }

  std::string Create(Family family) {
    const bool isNewServer = family == SERVER && !m_isCreated[SERVER];
    if (family == SERVER) {
      // A client that came later would wait for the server on the server's own thread.
      Construct(CLIENT);
      m_hasHandle[CLIENT] = true;
      Settle();
    }
    try {
      Construct(family);
    } catch (const Raised& raised) {
      if (raised.kind == Raised::FOREIGN) {
        throw;
      }
      Log(ERROR, API, "OndaroFactory_Get" + FAMILIES[family] + "Handle",
          "exception : " + raised.text + raised.detail);
      return "null";
    }
    if (isNewServer) {
      const std::string connection = "pDbusConnection:0x,  name:" + BUS_NAME;
      const std::string node = "pThis->m_pBusNodeInfo";
      Log(DEBUG, PAL, "BusAcquiredCallback", connection);
      Log(DEBUG, PAL, "BusAcquiredCallback",
          node + ":0x, " + node + "->path:0x, " + node + "->path:" + BUS_PATH + ", " + node +
              "->interfaces[0]:0x");
      Log(INFO, PAL, "BusNameAcquiredCallback", connection);
      m_ownsName = m_hasObject = true;
    }
    m_hasHandle[family] = true;
    return "handle";
  }

  /// Faults of what the library calls, and of the callbacks that it calls.
  static void RaiseIf(Fault fault, const std::string& origin) {
    if (fault == Fault::STANDARD) {
      throw Raised{Raised::STANDARD, origin + "%s%n"};
    }
    if (fault == Fault::FOREIGN) {
      throw Raised{Raised::FOREIGN, "of unknown type"};
    }
    if (fault == Fault::API) {
      throw Raised{Raised::OF_API, origin + "fault", "(" + origin + "/fault)"};
    }
  }

  /// The handler of that name, if any; what it throws does not pass back into C.
  bool CallHandler(const std::map<std::string, int>& handlers, const std::string& name,
                   const std::string& data, const std::string& function) {
    const auto entry = handlers.find(name);
    if (entry == handlers.end()) {
      return false;
    }
    try {
      RunHandler(entry->second, data);
    } catch (const Raised& raised) {
      Error(function, "exception : " + raised.text);
    }
    return true;
  }

  void RunHandler(int handler, const std::string& data) {
    if (handler == EMPTY_FUNCTION) {
      throw Raised{Raised::STANDARD, "bad_function_call"};
    }
    if (handler == DOES_NOTHING) {
      return;
    }
    Note("EVENT", std::to_string(handler) + " " + data);
    if (m_nScriptsLeft-- <= 0) {
      return;
    }
    const Script& script = ScriptOf(static_cast<unsigned>(handler));
    for (const Step& step : script.steps) {
      Do(step);
    }
    RaiseIf(script.ending, "script");
  }

  // ---- Properties -------------------------------------------------------------------------------

  std::string Get(const std::string& mixedKey) {
    Error("_GetProperty", "key : " + mixedKey);
    if (mixedKey == "SDR") {
      return "1";
    }
    const std::size_t colon = mixedKey.find(':');
    const bool hasData = colon != std::string::npos;
    const std::string name = mixedKey.substr(0, colon);
    const auto logPart = [&](const char* function, const std::string& part) {
      Log(hasData ? INFO : DEBUG, PAL, function, hasData ? part : "data is not included");
    };
    logPart("_ExtractKeyFromMixedKey", "key : " + name);
    const Property* property = Find(name);
    if (property == nullptr && name != "SYSTEM_ID" && name != "TARGET_REPOSITORY") {
      return Error("_GetProperty", "property[" + mixedKey + "] is undefined"), "";
    }
    logPart("_ExtractDataFromMixedKey", hasData ? "data : " + mixedKey.substr(colon + 1) : "");
    if (property == nullptr) {
      return name == "SYSTEM_ID" ? SystemId() : "emulator";
    }
    if (property->toText == nullptr) {
      const auto text = Read<std::string>(property->key, "get_string ", "SetregGetStr");
      return text.value_or("error");
    }
    const auto number = Read<int>(property->key, "get_int ", "SetregGetInt");
    return number ? property->toText(*number) : "error";
  }

  bool Set(const std::string& key, const std::string& value) {
    Error("_SetProperty", "key : " + key);
    const Property* property = Find(key);
    if (key == "ONDARO_SET_PROCESS_GRP") {
      Log(INFO, API, "SetProcessGroup",
          "pid of caller process : " + std::to_string(getpid()) + ", pid of appid (" + Cut(value) +
              ") : " + std::to_string(m_platform.m_appPid) + "\n");
      if (m_platform.m_setGroupResult != 0) {
        Refuse("SetProcessGroup", "set process group fail\n");
      }
      m_isGroupSet = true;
      return m_platform.m_setGroupResult == 0;
    }
    if (property == nullptr) {
      return Error("_SetProperty", "property[" + key + "] is undefined"), false;
    }
    if (property->toText == FlagText) {
      return Write(property->key, value == "true" ? 1 : 0);
    }
    if (property->toText == nullptr) {
      return Write(property->key, Cut(value));
    }
    const auto word = USAGE.find(value);
    return Write(property->key, word != USAGE.end() ? word->second : 0);
  }

  void Watch(const std::string& key, int handler) {
    Error("RegisterEventHandler", "key : " + key);
    m_configHandlers[key] = handler;
    const Property* property = Find(key);
    if (property == nullptr || property->callback.empty()) {
      return;
    }
    if (property->isFiltered) {
      const auto text = Read<std::string>(property->key, "get_string ", "SetregGetStr");
      m_cache[property->key] = text.value_or(m_cache[property->key]);
    }
    const bool isDone = StoreCall("subscribe " + property->key);
    if (isDone) {
      m_subscribed.insert(property->key);
    }
    LogSubscription("RegisterSetregChangedCb", "register", property->key, isDone);
  }

  void Unwatch(const std::string& key) {
    m_configHandlers[key] = DOES_NOTHING;
    const Property* property = Find(key);
    if (property != nullptr && !property->callback.empty()) {
      const bool isDone =
          StoreCall("unsubscribe " + property->key) && m_subscribed.erase(property->key) != 0;
      LogSubscription("DeregisterSetregChangedCb", "Un register", property->key, isDone);
    }
  }

  void LogSubscription(const char* function, const std::string& verb, const std::string& key,
                       bool isDone) {
    Log(isDone ? DEBUG : ERROR, PAL, function,
        isDone ? "Succeed to " + verb + " for notification for key " + key + " "
               : "Failed to " + verb + " for setreg key " + key + " nottification");
  }

  bool StoreCall(const std::string& call) {
    Note("STORE", call);
    RaiseIf(m_faults.store, "store");
    return m_faults.store == Fault::NONE;
  }

  template <typename T>
  std::optional<T> Read(const std::string& key, const char* call, const char* function) {
    const auto entry = StoreCall(call + key) ? m_store.find(key) : m_store.end();
    if (entry == m_store.end() || !std::holds_alternative<T>(entry->second)) {
      return Error(function, "Failed to get key " + key), std::nullopt;
    }
    if (std::is_same_v<T, int>) {
      Log(INFO, PAL, function, "Succeed to get key " + key);
    }
    return std::get<T>(entry->second);
  }

  bool Write(const std::string& key, const Value& value) {
    const int* number = std::get_if<int>(&value);
    const char* function = number != nullptr ? "SetregSetInt" : "SetregSetStr";
    if (!StoreCall((number != nullptr ? "set_int " : "set_string ") + key)) {
      return Error(function, "Failed to set key " + key), false;
    }
    m_store[key] = value;
    m_written.push_back(key);
    const std::string text = number != nullptr ? std::to_string(*number) : std::get<0>(value);
    Log(INFO, PAL, function, "Succeed to set key " + key + " as " + text);
    return true;
  }

  void Change(const Step& step) {
    const Property* property = Find(KeyOf(step));
    if (property == nullptr) {
      return;
    }
    std::optional<Value> value;
    if (!IsUnreadable(step) && !IsWithoutNode(step)) {
      const int* number = NumberOf(step);
      value = number != nullptr ? Value(*number) : Value(Cut(ValueOf(step.b)));
      m_store[property->key] = *value;
    }
    const bool isSubscribed = m_subscribed.count(property->key) != 0;
    if (isSubscribed && IsWithoutNode(step)) {
      Error(property->callback + "ChangedCallback", "exception : PAL Exception: Nullptr: pKeyNode");
    } else if (isSubscribed) {
      Deliver(*property, value);
    }
  }

  void Deliver(const Property& property, const std::optional<Value>& value) {
    const std::string function = property.callback + "ChangedCallback";
    const bool isText = property.toText == nullptr;
    if (!value || std::holds_alternative<std::string>(*value) != isText) {
      const std::string reader = isText ? "GetSetregStrFromKeynode" : "GetSetregIntFromKeynode";
      Error(reader, std::string("failed to get ") + (isText ? "str" : "int") + " from keynode");
      Error(function, "throw " + reader);
      return Error(function, "exception : " + INVALID_CASE + reader);
    }
    const std::string text = isText ? std::get<0>(*value) : property.toText(std::get<int>(*value));
    if (property.isFiltered && std::exchange(m_cache[property.key], text) == text) {
      return;
    }
    CallHandler(m_configHandlers, property.name, text, function);
  }

  // ---- Authentication ---------------------------------------------------------------------------

  void OpenModule() {
    ModuleCall("supported[com.widevine.alpha]");
    if (m_platform.m_supportStatus != 11) {
      Refuse("CCoreAuthImpl", "Key system[com.widevine.alpha] is not supported.");
      return;
    }
    ModuleCall("create[com.widevine.alpha][0][1]");
    if (m_platform.m_isCreateFailing) {
      Refuse("CCoreAuthImpl", "EME instance create Fail!");
      return;
    }
    m_hasInstance = true;
    m_hasKeys = m_platform.m_hasKeyInterface;
    Log(INFO, API, "CCoreAuthImpl", "EME instance = [0x] ,created. ");
  }

  bool ModuleCall(const std::string& call) {
    Note("CDM", call);
    RaiseIf(m_faults.module, "module");
    return m_faults.module == Fault::NONE;
  }

  std::string Generate(const Step& step) {
    const char* function = "_GenerateDeviceKeyAndCert";
    if (!m_hasKeys) {
      return Refuse(function, "pWVCDM is NULL");
    }
    if (!ModuleCall("generate[][]")) {
      return Refuse(function, "GenerateDeviceKeyAndCert failed.");
    }
    if (m_platform.m_key.empty() || m_platform.m_cert.empty()) {
      return Refuse(function, m_platform.m_key.empty() ? "return by [key.empty()]"
                                                       : "return by [cert.empty()]");
    }
    m_records[step.a % RECORDS] = m_platform.m_key;
    m_records[(step.a + 1) % RECORDS] = m_platform.m_cert;
    return "true";
  }

  std::string Sign(const Step& step) {
    if (IsKeyBroken(step) || IsHashBroken(step)) {
      throw Raised{Raised::STANDARD, NULL_TEXT};
    }
    if (!m_hasKeys) {
      return Refuse("_SignHash", "pWVCDM is NULL");
    }
    if (!ModuleCall("sign[" + ValueOf(step.a) + "][" + ValueOf(step.b) + "][]")) {
      return Refuse("_SignHash", "ondaroSign failed.");
    }
    if (m_platform.m_sign.empty()) {
      return Refuse("_SignHash", "sign is empty");
    }
    m_records[step.c % RECORDS] = m_platform.m_sign;
    return "true";
  }

  std::string Destroy(const Step& step) { return m_records[step.a % RECORDS].reset(), ""; }

  std::string SystemId() {
    Construct(AUTH);
    if (!m_hasInstance) {
      return Refuse("GetSystemID", "cdm_ is NULL"), "error";
    }
    if (!ModuleCall("query[getSystemId][ ][]")) {
      return Refuse("GetSystemID", "getSystemId failed."), "error";
    }
    return m_platform.m_systemId;
  }

  // ---- Messaging --------------------------------------------------------------------------------

  static void RequireSendable(const std::string& name, const std::string& data) {
    for (const auto& [what, text] : {std::pair("appEvt", name), std::pair("data", data)}) {
      if (PeerText(text) != text) {
        throw Raised{Raised::STANDARD, INVALID_CASE + what + " is not valid UTF-8"};
      }
    }
  }

  void ServerSend(const std::string& name, const std::string& data) {
    if (!m_ownsName) {
      throw Raised{Raised::STANDARD, INVALID_CASE + "m_pDbusConnection is NULL"};
    }
    RequireSendable(name, data);
    Log(DEBUG, PAL, "SendDataToClient", "DBUS success emit signal");
    SendSignal({"own", name, data});
  }

  void ClientSend(const std::string& name, const std::string& data) {
    RequireSendable(name, data);
    Log(INFO, PAL, "SendDataToServer",
        "Values are being sent. appEvt : " + name + ", surfaceId : " + data);
    m_onTheWay.emplace_back([=, isHeard = m_hasObject] {
      isHeard ? ArriveCall({"own", name, data})
              : Error(COMPLETION, "g_dbus_proxy_call_finish error : ");
    });
  }

  void PeerSend(const Step& step) {
    Settle();
    const Message message = {"peer", PeerText(EventNameOf(step)), PeerText(ValueOf(step.b)),
                             TypeOf(step)};
    if (step.op == Op::PEER_SIGNAL) {
      SendSignal(message);
      return Settle();
    }
    const bool isCarried = m_hasObject && message.type == "(ss)";
    if (isCarried) {
      ArriveCall(message);
    }
    Settle();
    Note("RESULT", isCarried ? "(0,)" : "error");
  }

  /// One that was subscribed again after the signal arrived does not get it.
  void SendSignal(const Message& message) {
    m_onTheWay.emplace_back([this, message, subscription = m_subscription] {
      if (subscription != 0 && subscription == m_subscription) {
        ArriveSignal(message);
      }
    });
  }

  void GiveOrTakeName() {
    Settle();
    if (m_isCreated[SERVER]) {
      m_hasObject = false;  // once lost, it is gone for good
      m_ownsName = !m_ownsName;
      Log(INFO, PAL, m_ownsName ? "BusNameAcquiredCallback" : "BusNameLostCallback",
          "pDbusConnection:0x,  name:" + BUS_NAME);
    }
  }

  /// All that is on its way arrives in the order in which it was sent, and then the store tells of
  /// the writes; either may cause more.
  void Settle() {
    while (!m_onTheWay.empty() || !m_written.empty()) {
      while (!m_onTheWay.empty()) {
        const auto arrive = m_onTheWay.front();
        m_onTheWay.pop_front();
        arrive();
      }
      for (const std::string& key : std::exchange(m_written, {})) {
        if (m_subscribed.count(key) != 0) {
          Deliver(*Find(key), m_store.at(key));
        }
      }
    }
  }

  void ArriveCall(const Message& message) {
    const std::string where = " sender:" + message.sender + "  object_path:" + BUS_PATH +
                              "  interface_name:" + BUS_NAME + "  method_name:sendDataToServer";
    Log(INFO, PAL, "BusInterfaceMethodCallback", "Start" + where);
    {
      const char* function = "HandleAppData";
      const Scope scope(*this, PAL, "NOndaroPAL::CIpcServerImpl::HandleAppData");
      Log(INFO, PAL, function, "appEvt : " + message.name + ", data : " + message.data);
      if (!CallHandler(m_serverHandlers, message.name, message.data, function)) {
        Error(function, "appEvt " + message.name + " is not registered");
        for (const auto& entry : m_serverHandlers) {
          Error(function, "registered appEvt : " + entry.first);
        }
      }
      if (message.sender == "own") {
        m_onTheWay.emplace_back(
            [=] { Log(INFO, PAL, COMPLETION, "g_dbus_proxy_call result : 0"); });
      }
    }
    Log(INFO, PAL, "BusInterfaceMethodCallback", "Finish" + where);
  }

  void ArriveSignal(const Message& message) {
    const char* function = "_DbusSignalCallback";
    const std::string where = " sender_name:" + message.sender + ", object_path:" + BUS_PATH +
                              ",  interface_name:" + BUS_NAME + ",  signal_name:sendDataToClient";
    const Scope scope(*this, PAL, "NOndaroPAL::CIpcClientImpl::_DbusSignalCallback");
    Error(function, "Start" + where);
    if (message.type != "(ss)") {
      Error(function, "unexpected arguments " + message.type);
    } else {
      CallClient(message);
    }
    Error(function, "Finish" + where);
  }

  void CallClient(const Message& message) {
    std::optional<Scope> dispatch;
    dispatch.emplace(*this, PAL, "NOndaroPAL::CIpcClientImpl::_CallDbusClientCallback");
    try {
      const auto handler = m_clientHandlers.find(message.name);
      RunHandler(handler != m_clientHandlers.end() ? handler->second : DOES_NOTHING, message.data);
    } catch (const Raised& raised) {
      dispatch.reset();
      Error("_DbusSignalCallback", "exception : " + raised.text);
    }
  }

  const Faults& m_faults;
  const FakePlatform& m_platform = FakePlatform::Get();
  Lines m_lines;
  int m_nScriptsLeft = 0;
  std::array<bool, 4> m_isCreated = {}, m_hasHandle = {};
  std::map<std::string, int> m_configHandlers, m_serverHandlers, m_clientHandlers;

  std::map<std::string, Value> m_store;
  std::set<std::string> m_subscribed;
  std::vector<std::string> m_written;  // keys whose subscribers are still to be told
  std::map<std::string, std::string> m_cache;
  bool m_isGroupSet = false;

  bool m_hasInstance = false, m_hasKeys = false;
  std::array<std::optional<std::string>, RECORDS> m_records;

  bool m_ownsName = false, m_hasObject = false;
  int m_subscription = 0, m_nSubscriptions = 0;
  std::deque<std::function<void()>> m_onTheWay;
};

}  // namespace

Performer MakeModel(const Faults& faults) {
  const auto model = std::make_shared<Model>(faults);
  return [model](const Step& step) { return model->Perform(step); };
}

}  // namespace ondaro::model
