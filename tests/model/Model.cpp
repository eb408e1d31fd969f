
#include <glib.h>
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

#include "model/Step.h"

namespace ondaro::model {

namespace {

constexpr int DEBUG = 3;
constexpr int INFO = 4;
constexpr int ERROR = 6;
constexpr const char* API = "ONDARO_API";
constexpr const char* PAL = "ONDARO_PAL";

const std::string BUS_NAME = "com.halvex.tv.ondaro";
const std::string BUS_PATH = "/com/halvex/tv/ondaro";
const std::string NULL_TEXT = "basic_string: construction from null is not valid";
const std::string INVALID_CASE = "PAL Exception: InvalidCase: ";
const std::map<std::string, int> USAGE = {{"false", 0}, {"default", 1}, {"true", 2}, {"set", 3}};

const char* const FAMILIES[] = {"SystemConfig", "CoreAuth", "IpcClient", "IpcServer"};

constexpr int DOES_NOTHING = 0;
constexpr int EMPTY_FUNCTION = -1;

int HandlerOf(const Step& step) {
  const unsigned script = ScriptNumberOf(step);
  if (script != NO_SCRIPT) {
    return static_cast<int>(script);
  }
  return HowOf(step) == How::WRAPPER ? EMPTY_FUNCTION : DOES_NOTHING;
}

/// An exported function, what it returns when it fails, and the pointers it tests before others.
struct Function {
  Op op;
  Family family;
  std::string name;
  const char* failure;
  std::vector<const char*> required = {};
};

const Function& FunctionOf(Op op) {
  static const std::string config = "OndaroApi_SystemConfig_", auth = "OndaroApi_CoreAuth_";
  static const std::string client = "OndaroApi_IpcClient_", server = "OndaroApi_IpcServer_";
  static const Function functions[] = {
      {Op::GET, CONFIG, config + "GetProperty", "null", {"key", "pLength"}},
      {Op::SET, CONFIG, config + "SetProperty", "false", {"key", "val"}},
      {Op::WATCH, CONFIG, config + "RegisterEventHandler", ""},
      {Op::UNWATCH, CONFIG, config + "UnregisterEventHandler", ""},
      {Op::SERVER_WATCH, SERVER, server + "RegisterEventHandler", ""},
      {Op::SERVER_UNWATCH, SERVER, server + "UnregisterEventHandler", ""},
      {Op::SERVER_SEND, SERVER, server + "SendDataToClient", "-1"},
      {Op::CLIENT_WATCH, CLIENT, client + "RegisterEventHandler", ""},
      {Op::CLIENT_UNWATCH, CLIENT, client + "UnregisterEventHandler", ""},
      {Op::CLIENT_SEND, CLIENT, client + "SendDataToServer", "-1"},
      {Op::GENERATE, AUTH, auth + "GenerateDeviceKeyAndCert", "false", {"key", "cert"}},
      {Op::SIGN, AUTH, auth + "SignHash", "false", {"key", "hash"}},
      {Op::CHAIN, AUTH, auth + "GetModelCertChain", "false", {"certChain"}},
      {Op::DESTROY, AUTH, auth + "DestroyCoreAuthInfo", "", {"authInfo"}}};
  return *std::find_if(std::begin(functions), std::end(functions),
                       [op](const Function& function) { return function.op == op; });
}

std::string FlagText(int number) { return number == 1 ? "true" : "false"; }

std::string UsageText(int number) {
  const auto word = std::find_if(USAGE.begin(), USAGE.end(),
                                 [&](const auto& entry) { return entry.second == number; });
  return word != USAGE.end() ? word->first : "";
}

/// What the library is to do: its results, its events and its log, one after the other. Shares no
/// code with it.
class Model {
 public:
  explicit Model(Mutation mutation) : m_mutation(mutation) {}

  Lines Perform(const Step& step) {
    m_nScriptsLeft = SCRIPTS_PER_STEP;
    Do(step);
    return std::exchange(m_lines, {});
  }

 private:
  struct Raised {
    enum Kind { BROKEN, API, STANDARD, FOREIGN } kind;
    std::string text;
    std::string detail = {};
  };
  struct Message {
    enum Kind { CALL, SIGNAL, REPLY, FAILURE } kind;
    std::string sender, name, data, type;
    int subscription;
  };
  using Value = std::variant<std::string, int>;
  using Handlers = std::map<std::string, int>;  // a script or one of the constants in the source

  /// A property that the settings store holds.
  struct Property {
    std::string name;
    std::string (*toText)(int);  // null for a text
    std::string callback;        // entered on changes; empty without
    bool isFiltered;
    std::string key = StoreKeyOf(name);
  };

  static const Property* Find(const std::string& nameOrKey) {
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
    for (const Property& property : properties) {
      if (nameOrKey == property.name || nameOrKey == property.key) {
        return &property;
      }
    }
    return nullptr;
  }

  /// A traced function: "Entered" now and "Left" on every way out.
  class Scope {
   public:
    Scope(Model& model, const char* tag, const std::string& signature, int priority = INFO)
        : m_model(model), m_tag(tag), m_nPriority(priority), m_signature("[" + signature + "]") {
      m_tracer = tag == API ? "ONDARO_API_CALL_TRACER" : "ONDAROCALLTRACE";
      if (priority == ERROR) {
        m_tracer += "_ERROR";
      }
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

  /// A wrapper's function and the one of the same name that it forwards to.
  struct Forwarded {
    Forwarded(Model& model, const std::string& type, const std::string& function,
              int priority = INFO)
        : wrapper(model, API, "NOndaroAPI::" + type + "::" + function),
          implementation(model, PAL, "NOndaroPAL::" + type + "Impl::" + function, priority) {}
    Scope wrapper, implementation;
  };

  void Log(int priority, const char* tag, const std::string& function, const std::string& body) {
    m_lines.push_back(std::to_string(priority) + " " + tag + " " + function + ": " + body);
  }

  void Note(const std::string& kind, const std::string& what) {
    m_lines.push_back("0 " + kind + " : " + what);
  }

  // ---- Steps and the frame of the exported functions
  // ----------------------------------------------

  void Do(const Step& step) {
    switch (step.op) {
      case Op::SETTLE:
        return Settle();
      case Op::CHANGE:
        return Change(step);
      case Op::SCRIPT_STORE:
        m_storeFault = FaultOf(step.a);
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
      Note("RESULT", step.op == Op::CREATE ? Create(FamilyOf(step)) : Call(step));
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
    const How how = HowOf(step);
    const bool hasHandle = how != How::NULL_HANDLE && m_hasHandle[function.family];
    if (how == How::WRAPPER && hasHandle && step.op < Op::SETTLE) {
      return Body(step, ValueOf(step.b));
    }
    const bool isNull[] = {how == How::NULL_FIRST, how == How::NULL_SECOND};
    const Scope scope(*this, API, function.name);
    try {
      for (std::size_t index = 0; index < function.required.size(); ++index) {
        if (isNull[index]) {
          throw Raised{Raised::BROKEN, function.required[index]};
        }
      }
      if (step.op == Op::CLIENT_WATCH && ScriptNumberOf(step) == NO_SCRIPT) {
        throw Raised{Raised::API, "apicallback is null", "(api/callback is null)"};
      }
      if (step.op == Op::DESTROY) {
        return m_records[step.a % RECORDS].reset(), "";
      }
      for (const unsigned offset : {0U, 1U}) {
        if (step.op == Op::GENERATE && m_records[(step.a + offset) % RECORDS]) {
          Log(ERROR, API, "_GenerateDeviceKeyAndCert",
              std::string("return by [") + function.required[offset] + " is not empty]");
          return "false";
        }
      }
      if (!hasHandle) {
        throw Raised{Raised::BROKEN, "handle"};
      }
      const bool isSend = step.op == Op::SERVER_SEND || step.op == Op::CLIENT_SEND;
      const bool takesText = isSend || step.op == Op::WATCH || step.op == Op::UNWATCH ||
                             step.op == Op::SERVER_WATCH || step.op == Op::CLIENT_WATCH;
      if ((takesText && isNull[0]) || (isSend && isNull[1])) {
        throw Raised{Raised::STANDARD, NULL_TEXT};
      }
      return Body(step, Cut(ValueOf(step.b)));
    } catch (const Raised& raised) {
      if (raised.kind == Raised::FOREIGN) {
        throw;
      }
      Log(ERROR, API, function.name,
          raised.kind == Raised::BROKEN
              ? raised.text + " is null in [" + function.name + "]"
              : "exception : " + raised.text + (step.op == Op::SET ? "" : raised.detail));
      return function.failure;
    }
  }

  /// What the wrapper does, which the exported function reaches once its arguments are accepted.
  std::string Body(const Step& step, const std::string& value) {
    const std::string name = EventNameOf(step);
    switch (step.op) {
      case Op::GET:
        return Get(KeyOf(step));
      case Op::SET:
        return Set(KeyOf(step), value) ? "true" : "false";
      case Op::WATCH:
        return Watch(KeyOf(step), HandlerOf(step)), "";
      case Op::UNWATCH:
        return Unwatch(KeyOf(step)), "";
      case Op::SERVER_WATCH: {
        const Forwarded scopes(*this, "CIpcServer", "RegisterEventHandler", ERROR);
        m_serverHandlers[name] = HandlerOf(step);
        return "";
      }
      case Op::SERVER_UNWATCH: {
        const Forwarded scopes(*this, "CIpcServer", "UnregisterEventHandler", ERROR);
        m_serverHandlers.clear();
        return "";
      }
      case Op::SERVER_SEND:
        return ServerSend(name, value), "0";
      case Op::CLIENT_WATCH:
        return ClientWatch(name, HandlerOf(step)), "";
      case Op::CLIENT_UNWATCH:
        return ClientUnwatch(), "";
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
    const std::string name = FAMILIES[family];
    const std::string implementation = "NOndaroPAL::C" + name + "Impl";
    {
      const Scope scope(*this, PAL, implementation + "::C" + name + "Impl");
      if (family == CONFIG) {
        Log(INFO, PAL, "CSystemConfigImpl", "Chip: NONE");
        Log(INFO, PAL, "_PrintPropertyMap", "SDR: 1");
        for (const std::string map : {"GetFunctionMap", "SetFunctionMap", "CbManagerMap"}) {
          const Scope init(*this, PAL, implementation + "::_Init" + map);
        }
      } else if (family == AUTH) {
        OpenModule();
      } else if (family == SERVER) {
        Log(DEBUG, PAL, "CIpcServerImpl", "g_bus_own_name return: 1");
      }
    }
    const Scope scope(*this, API, "NOndaroAPI::C" + name + "::C" + name);
    m_isCreated[family] = true;
  }

  std::string Create(Family family) {
    if (family == SERVER) {
      // A client that came later would wait for the server on the server's own thread.
      Construct(CLIENT);
      m_hasHandle[CLIENT] = true;
      Settle();
    }
    const bool isNew = !m_isCreated[family];
    try {
      Construct(family);
    } catch (const Raised& raised) {
      if (raised.kind == Raised::FOREIGN) {
        throw;
      }
      Log(ERROR, API, std::string("OndaroFactory_Get") + FAMILIES[family] + "Handle",
          "exception : " + raised.text + raised.detail);
      return "null";
    }
    if (family == SERVER && isNew) {
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
      throw Raised{Raised::STANDARD, origin};
    }
    if (fault == Fault::FOREIGN) {
      throw Raised{Raised::FOREIGN, "of unknown type"};
    }
    if (fault == Fault::API) {
      throw Raised{Raised::API, origin + "fault", "(" + origin + "/fault)"};
    }
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

  /// A callback from C: nothing passes back.
  template <typename TBody>
  void Contained(const std::string& function, const TBody& body) {
    try {
      body();
    } catch (const Raised& raised) {
      Log(ERROR, PAL, function, "exception : " + raised.text);
    }
  }

  // ---- Properties
  // ---------------------------------------------------------------------------------

  std::string Get(const std::string& mixedKey) {
    Log(ERROR, PAL, "_GetProperty", "key : " + mixedKey);
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
      Log(ERROR, PAL, "_GetProperty", "property[" + mixedKey + "] is undefined");
      return "";
    }
    logPart("_ExtractDataFromMixedKey", hasData ? "data : " + mixedKey.substr(colon + 1) : "");
    if (name == "TARGET_REPOSITORY") {
      return "emulator";
    }
    if (name == "SYSTEM_ID") {
      return SystemId();
    }
    if (property->toText == nullptr) {
      return ReadText(property->key).value_or("error");
    }
    const std::optional<int> number = ReadNumber(property->key);
    return number ? property->toText(*number) : "error";
  }

  bool Set(const std::string& key, const std::string& value) {
    Log(ERROR, PAL, "_SetProperty", "key : " + key);
    if (key == "ONDARO_SET_PROCESS_GRP") {
      return SetProcessGroup(value);
    }
    const Property* property = Find(key);
    if (property == nullptr) {
      Log(ERROR, PAL, "_SetProperty", "property[" + key + "] is undefined");
      return false;
    }
    if (property->toText == FlagText) {
      return Write(property->key, value == "true" ? 1 : 0);
    }
    if (property->toText == nullptr) {
      return Write(property->key, Cut(value));
    }
    const auto word = USAGE.find(value);
    const int unknown = m_mutation == Mutation::USAGE_WORD ? 1 : 0;
    return Write(property->key, word != USAGE.end() ? word->second : unknown);
  }

  bool SetProcessGroup(const std::string& appId) {
    Log(INFO, API, "SetProcessGroup",
        "pid of caller process : " + std::to_string(getpid()) + ", pid of appid (" + Cut(appId) +
            ") : -1\n");
    if (m_groupResult != 0) {
      Log(ERROR, API, "SetProcessGroup", "set process group fail\n");
    }
    return m_groupResult == 0;
  }

  void Watch(const std::string& key, int handler) {
    Log(ERROR, PAL, "RegisterEventHandler", "key : " + key);
    m_configHandlers[key] = handler;
    const Property* property = Find(key);
    if (property == nullptr || property->callback.empty()) {
      return;
    }
    if (property->isFiltered) {
      if (const auto text = ReadText(property->key)) {
        m_cache[property->key] = *text;
      }
    }
    if (!StoreCall("subscribe " + property->key)) {
      Log(ERROR, PAL, "RegisterSetregChangedCb",
          "Failed to register for setreg key " + property->key + " nottification");
      return;
    }
    m_subscribed.insert(property->key);
    Log(DEBUG, PAL, "RegisterSetregChangedCb",
        "Succeed to register for notification for key " + property->key + " ");
  }

  void Unwatch(const std::string& key) {
    m_configHandlers[key] = DOES_NOTHING;
    const Property* property = Find(key);
    if (property == nullptr || property->callback.empty()) {
      return;
    }
    if (!StoreCall("unsubscribe " + property->key) || m_subscribed.erase(property->key) == 0) {
      Log(ERROR, PAL, "DeregisterSetregChangedCb",
          "Failed to Un register for setreg key " + property->key + " nottification");
      return;
    }
    Log(DEBUG, PAL, "DeregisterSetregChangedCb",
        "Succeed to Un register for notification for key " + property->key + " ");
  }

  bool StoreCall(const std::string& call) {
    Note("STORE", call);
    RaiseIf(m_storeFault, "store");
    return m_storeFault == Fault::NONE;
  }

  std::optional<std::string> ReadText(const std::string& key) {
    if (StoreCall("get_string " + key)) {
      const auto entry = m_store.find(key);
      if (entry != m_store.end() && std::holds_alternative<std::string>(entry->second)) {
        return std::get<std::string>(entry->second);
      }
    }
    Log(ERROR, PAL, "SetregGetStr", "Failed to get key " + key);
    return std::nullopt;
  }

  std::optional<int> ReadNumber(const std::string& key) {
    if (StoreCall("get_int " + key)) {
      const auto entry = m_store.find(key);
      if (entry != m_store.end() && std::holds_alternative<int>(entry->second)) {
        Log(INFO, PAL, "SetregGetInt", "Succeed to get key " + key);
        return std::get<int>(entry->second);
      }
    }
    Log(ERROR, PAL, "SetregGetInt", "Failed to get key " + key);
    return std::nullopt;
  }

  bool Write(const std::string& key, const Value& value) {
    const int* number = std::get_if<int>(&value);
    const char* function = number != nullptr ? "SetregSetInt" : "SetregSetStr";
    if (!StoreCall((number != nullptr ? "set_int " : "set_string ") + key)) {
      Log(ERROR, PAL, function, "Failed to set key " + key);
      return false;
    }
    m_store[key] = value;
    m_written.push_back(key);
    Log(INFO, PAL, function,
        "Succeed to set key " + key + " as " +
            (number != nullptr ? std::to_string(*number) : std::get<std::string>(value)));
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
    if (m_subscribed.count(property->key) == 0) {
      return;
    }
    if (IsWithoutNode(step)) {
      Log(ERROR, PAL, property->callback + "ChangedCallback",
          "exception : PAL Exception: Nullptr: pKeyNode");
    } else {
      Deliver(*property, value);
    }
  }

  void Deliver(const Property& property, const std::optional<Value>& value) {
    const std::string function = property.callback + "ChangedCallback";
    const bool isText = property.toText == nullptr;
    if (!value || std::holds_alternative<std::string>(*value) != isText) {
      const std::string reader = isText ? "GetSetregStrFromKeynode" : "GetSetregIntFromKeynode";
      Log(ERROR, PAL, reader,
          isText ? "failed to get str from keynode" : "failed to get int from keynode");
      Log(ERROR, PAL, function, "throw " + reader);
      Log(ERROR, PAL, function, "exception : " + INVALID_CASE + reader);
      return;
    }
    const std::string text =
        isText ? std::get<std::string>(*value) : property.toText(std::get<int>(*value));
    if (property.isFiltered) {
      if (m_cache[property.key] == text && m_mutation != Mutation::UNFILTERED) {
        return;
      }
      m_cache[property.key] = text;
    }
    const auto handler = m_configHandlers.find(property.name);
    if (handler == m_configHandlers.end()) {
      return;
    }
    Contained(function, [&] { RunHandler(handler->second, text); });
  }

  // ---- Authentication
  // -----------------------------------------------------------------------------

  void OpenModule() {
    ModuleCall("supported[com.widevine.alpha]");
    if (!m_isSupported) {
      return Log(ERROR, API, "CCoreAuthImpl", "Key system[com.widevine.alpha] is not supported.");
    }
    ModuleCall("create[com.widevine.alpha][0][1]");
    if (m_isCreateFailing) {
      return Log(ERROR, API, "CCoreAuthImpl", "EME instance create Fail!");
    }
    m_hasInstance = true;
    m_hasKeys = m_givesKeys;
    Log(INFO, API, "CCoreAuthImpl", "EME instance = [0x] ,created. ");
  }

  bool ModuleCall(const std::string& call) {
    Note("CDM", call);
    RaiseIf(m_moduleFault, "module");
    return m_moduleFault == Fault::NONE;
  }

  void ScriptModule(const Step& step) {
    std::string* const texts[] = {&m_key, &m_cert, &m_sign, &m_systemId};
    bool* const flags[] = {&m_isSupported, &m_isCreateFailing, &m_givesKeys};
    const unsigned what = step.a % 10;
    if (what < 4) {
      *texts[what] = ValueOf(step.b);
    } else if (what < 7) {
      *flags[what - 4] = step.b % 2 == 0;
    } else if (what == 7) {
      m_groupResult = static_cast<int>(step.b % 2);
    } else {
      m_moduleFault = FaultOf(step.b);
    }
  }

  std::string Generate(const Step& step) {
    const char* function = "_GenerateDeviceKeyAndCert";
    if (!m_hasKeys) {
      return Log(ERROR, API, function, "pWVCDM is NULL"), "false";
    }
    if (!ModuleCall("generate[][]")) {
      return Log(ERROR, API, function, "GenerateDeviceKeyAndCert failed."), "false";
    }
    if (m_key.empty()) {
      return Log(ERROR, API, function, "return by [key.empty()]"), "false";
    }
    if (m_cert.empty()) {
      return Log(ERROR, API, function, "return by [cert.empty()]"), "false";
    }
    m_records[step.a % RECORDS] = m_key;
    m_records[(step.a + 1) % RECORDS] = m_cert;
    return "true";
  }

  std::string Sign(const Step& step) {
    const std::string hash = ValueOf(step.b);
    if (IsHashBroken(step)) {
      throw Raised{Raised::STANDARD, NULL_TEXT};
    }
    if (!m_hasKeys) {
      return Log(ERROR, API, "_SignHash", "pWVCDM is NULL"), "false";
    }
    if (!ModuleCall("sign[" + ValueOf(step.a) + "][" + hash + "][]")) {
      return Log(ERROR, API, "_SignHash", "ondaroSign failed."), "false";
    }
    if (m_sign.empty()) {
      return Log(ERROR, API, "_SignHash", "sign is empty"), "false";
    }
    m_records[step.c % RECORDS] = m_sign;
    return "true";
  }

  std::string SystemId() {
    Construct(AUTH);
    if (!m_hasInstance) {
      return Log(ERROR, API, "GetSystemID", "cdm_ is NULL"), "error";
    }
    if (!ModuleCall("query[getSystemId][ ][]")) {
      return Log(ERROR, API, "GetSystemID", "getSystemId failed."), "error";
    }
    return m_systemId;
  }

  // ---- Messaging
  // ----------------------------------------------------------------------------------

  void RequireSendable(const std::string& name, const std::string& data) const {
    for (const auto& [what, text] : {std::pair("appEvt", name), std::pair("data", data)}) {
      if (PeerText(text) != text) {
        throw Raised{Raised::STANDARD, INVALID_CASE + what + " is not valid UTF-8"};
      }
    }
  }

  void ServerSend(const std::string& name, const std::string& data) {
    const Scope wrapper(*this, API, "NOndaroAPI::CIpcServer::SendDataToClient");
    const Scope scope(*this, PAL, "NOndaroPAL::CIpcServerImpl::SendDataToClient");
    if (!m_ownsName) {
      throw Raised{Raised::STANDARD, INVALID_CASE + "m_pDbusConnection is NULL"};
    }
    RequireSendable(name, data);
    Log(DEBUG, PAL, "SendDataToClient", "DBUS success emit signal");
    if (m_subscription != 0) {
      m_onTheWay.push_back({Message::SIGNAL, "own", name, data, "(ss)", m_subscription});
    }
  }

  void ClientWatch(const std::string& name, int handler) {
    const Forwarded scopes(*this, "CIpcClient", "RegisterEventHandler");
    if (m_subscription == 0) {
      m_subscription = ++m_nSubscriptions;
    }
    m_clientHandlers[name] = handler;
  }

  void ClientUnwatch() {
    const Scope wrapper(*this, API, "NOndaroAPI::CIpcClient::UnregisterEventHandler");
    m_subscription = 0;
    m_clientHandlers.clear();
  }

  void ClientSend(const std::string& name, const std::string& data) {
    const Scope wrapper(*this, API, "NOndaroAPI::CIpcClient::SendDataToServer");
    const Scope scope(*this, PAL, "NOndaroPAL::CIpcClientImpl::SendDataToServer");
    RequireSendable(name, data);
    Log(INFO, PAL, "SendDataToServer",
        "Values are being sent. appEvt : " + name + ", surfaceId : " + data);
    m_onTheWay.push_back(
        {m_hasObject ? Message::CALL : Message::FAILURE, "own", name, data, "", 0});
  }

  void PeerSend(const Step& step) {
    Settle();
    const bool isCall = step.op == Op::PEER_CALL;
    const bool isCarried =
        isCall ? m_hasObject && std::string(TypeOf(step)) == "(ss)" : m_subscription != 0;
    if (isCarried) {
      m_onTheWay.push_back({isCall ? Message::CALL : Message::SIGNAL, "peer",
                            PeerText(EventNameOf(step)), PeerText(ValueOf(step.b)), TypeOf(step),
                            m_subscription});
    }
    Settle();
    if (isCall) {
      Note("RESULT", isCarried ? "(0,)" : "error");
    }
  }

  void GiveOrTakeName() {
    Settle();
    if (!m_isCreated[SERVER]) {
      return;
    }
    // Once lost, the object is gone for good.
    m_hasObject = false;
    m_ownsName = !m_ownsName;
    Log(INFO, PAL, m_ownsName ? "BusNameAcquiredCallback" : "BusNameLostCallback",
        "pDbusConnection:0x,  name:" + BUS_NAME);
  }

  /// All that is on its way arrives in the order in which it was sent, and then the store tells of
  /// the writes; either may cause more.
  void Settle() {
    while (!m_onTheWay.empty() || !m_written.empty()) {
      while (!m_onTheWay.empty()) {
        const Message message = m_onTheWay.front();
        m_onTheWay.pop_front();
        Dispatch(message);
      }
      for (const std::string& key : std::exchange(m_written, {})) {
        if (m_subscribed.count(key) != 0) {
          Deliver(*Find(key), m_store.at(key));
        }
      }
    }
  }

  void Dispatch(const Message& message) {
    const char* completion = "_SendDataToServerAyncResultCallback";
    switch (message.kind) {
      case Message::CALL:
        return DispatchCall(message);
      case Message::SIGNAL:
        return DispatchSignal(message);
      case Message::REPLY:
        return Log(INFO, PAL, completion, "g_dbus_proxy_call result : 0");
      case Message::FAILURE:
        return Log(ERROR, PAL, completion, "g_dbus_proxy_call_finish error : ");
    }
  }

  void DispatchCall(const Message& message) {
    const std::string where = " sender:" + message.sender + "  object_path:" + BUS_PATH +
                              "  interface_name:" + BUS_NAME + "  method_name:sendDataToServer";
    const auto reply = [&] {
      if (message.sender == "own") {
        m_onTheWay.push_back({Message::REPLY, "", "", "", "", 0});
      }
    };
    Log(INFO, PAL, "BusInterfaceMethodCallback", "Start" + where);
    {
      const Scope scope(*this, PAL, "NOndaroPAL::CIpcServerImpl::HandleAppData");
      Log(INFO, PAL, "HandleAppData", "appEvt : " + message.name + ", data : " + message.data);
      if (m_mutation == Mutation::EARLY_REPLY) {
        reply();
      }
      const auto handler = m_serverHandlers.find(message.name);
      if (handler != m_serverHandlers.end()) {
        Contained("HandleAppData", [&] { RunHandler(handler->second, message.data); });
      } else {
        Log(ERROR, PAL, "HandleAppData", "appEvt " + message.name + " is not registered");
        for (const auto& entry : m_serverHandlers) {
          Log(ERROR, PAL, "HandleAppData", "registered appEvt : " + entry.first);
        }
      }
      if (m_mutation != Mutation::EARLY_REPLY) {
        reply();
      }
    }
    Log(INFO, PAL, "BusInterfaceMethodCallback", "Finish" + where);
  }

  void DispatchSignal(const Message& message) {
    // One that was subscribed again after the signal arrived does not get it.
    const bool isOld = message.subscription != m_subscription;
    if (isOld && (m_subscription == 0 || m_mutation != Mutation::OLD_SUBSCRIPTION)) {
      return;
    }
    const std::string where = " sender_name:" + message.sender + ", object_path:" + BUS_PATH +
                              ",  interface_name:" + BUS_NAME + ",  signal_name:sendDataToClient";
    const Scope scope(*this, PAL, "NOndaroPAL::CIpcClientImpl::_DbusSignalCallback");
    Log(ERROR, PAL, "_DbusSignalCallback", "Start" + where);
    if (message.type != "(ss)") {
      Log(ERROR, PAL, "_DbusSignalCallback", "unexpected arguments " + message.type);
    } else {
      Contained("_DbusSignalCallback", [&] {
        const Scope dispatch(*this, PAL, "NOndaroPAL::CIpcClientImpl::_CallDbusClientCallback");
        const auto handler = m_clientHandlers.find(message.name);
        if (handler != m_clientHandlers.end()) {
          RunHandler(handler->second, message.data);
        }
      });
    }
    Log(ERROR, PAL, "_DbusSignalCallback", "Finish" + where);
  }

  Mutation m_mutation;
  Lines m_lines;
  int m_nScriptsLeft = 0;
  std::array<bool, 4> m_isCreated = {}, m_hasHandle = {};
  Handlers m_configHandlers, m_serverHandlers, m_clientHandlers;

  Fault m_storeFault = Fault::NONE;
  std::map<std::string, Value> m_store;
  std::set<std::string> m_subscribed;
  std::vector<std::string> m_written;  // keys whose subscribers are still to be told
  std::map<std::string, std::string> m_cache;
  int m_groupResult = 0;

  Fault m_moduleFault = Fault::NONE;
  bool m_isSupported = true, m_isCreateFailing = false, m_givesKeys = true;
  std::string m_key = "key", m_cert = "cert", m_sign = "sign", m_systemId = "system-id";
  bool m_hasInstance = false, m_hasKeys = false;
  std::array<std::optional<std::string>, RECORDS> m_records;

  bool m_ownsName = false, m_hasObject = false;
  int m_subscription = 0, m_nSubscriptions = 0;
  std::deque<Message> m_onTheWay;
};

}  // namespace

Performer MakeModel(Mutation mutation) {
  return [model = std::make_shared<Model>(mutation)](const Step& step) {
    return model->Perform(step);
  };
}

}  // namespace ondaro::model
