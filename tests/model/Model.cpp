#include <glib.h>
#include <unistd.h>

#include <algorithm>
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

constexpr int DEBUG = 3, INFO = 4, ERROR = 6;
constexpr const char *API = "ONDARO_API", *PAL = "ONDARO_PAL";
const std::string BUS_NAME = "com.halvex.tv.ondaro", BUS_PATH = "/com/halvex/tv/ondaro";
const std::string COMPLETION = "_SendDataToServerAyncResultCallback";
const std::string INVALID_CASE = "PAL Exception: InvalidCase: ";
const std::map<std::string, int> USAGE = {{"false", 0}, {"default", 1}, {"true", 2}, {"set", 3}};

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
  std::string key = std::find_if(std::begin(KEYS), std::end(KEYS), [this](const Key& entry) {
                      return entry.property == name;
                    })->store;
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

/// What the library is to do: its results, its events and its log, one after the other. Shares no
/// code with it.
class Model {
 public:
  Lines Perform(const Step* step) {
    m_nScriptsLeft = SCRIPTS_PER_STEP;
    if (step != nullptr) {
      Do(*step);
    } else {
      Construct();
    }
    return std::exchange(m_lines, {});
  }

 private:
  struct Raised {
    Fault fault;
    std::string text;
    std::string detail = {};
  };

  struct Message {
    std::string name, data;
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
  void Note(const char* kind, const std::string& what) { Log(0, kind, "", what); }
  void Error(const std::string& function, const std::string& body) {
    Log(ERROR, PAL, function, body);
  }

  // ---- Steps and the frame of the exported functions --------------------------------------------

  void Construct() {
    for (const std::string family : {"IpcClient", "IpcServer", "SystemConfig"}) {
      const std::string type = "C" + family, pal = "NOndaroPAL::" + type + "Impl::";
      {
        const Scope scope(*this, PAL, pal + type + "Impl");
        if (family == "SystemConfig") {
          Log(INFO, PAL, type + "Impl", "Chip: NONE");
          Log(INFO, PAL, "_PrintPropertyMap", "SDR: 1");
          for (const char* map : {"GetFunctionMap", "SetFunctionMap", "CbManagerMap"}) {
            const Scope init(*this, PAL, std::string(pal).append("_Init").append(map));
          }
        } else if (family == "IpcServer") {
          Log(DEBUG, PAL, type + "Impl", "g_bus_own_name return: 1");
        }
      }
      const Scope scope(*this, API, "NOndaroAPI::" + type + "::" + type);
    }
    const std::string connection = "pDbusConnection:0x,  name:" + BUS_NAME;
    const std::string node = "pThis->m_pBusNodeInfo";
    Log(DEBUG, PAL, "BusAcquiredCallback", connection);
    Log(DEBUG, PAL, "BusAcquiredCallback",
        node + ":0x, " + node + "->path:0x, " + node + "->path:" + BUS_PATH + ", " + node +
            "->interfaces[0]:0x");
    Log(INFO, PAL, "BusNameAcquiredCallback", connection);
  }

  void Do(const Step& step) {
    if (step.op == SETTLE) {
      Settle();
    } else if (step.op == CHANGE) {
      Change(step);
    } else if (step.op == FAIL) {
      m_fault = FaultOf(step);
    } else {
      try {
        Note("RESULT", Call(step));
      } catch (const Raised&) {
        Note("THROWN", "foreign");
      }
    }
  }

  /// Its name, its tag's families aside, and what it returns when it fails.
  struct Function {
    std::string family, name, failure;
  };

  std::string Call(const Step& step) {
    static const Function functions[] = {{"SystemConfig", "GetProperty", "null"},
                                         {"SystemConfig", "SetProperty", "0"},
                                         {"SystemConfig", "RegisterEventHandler", "0"},
                                         {"SystemConfig", "UnregisterEventHandler", "0"},
                                         {"IpcServer", "RegisterEventHandler", "0"},
                                         {"IpcServer", "UnregisterEventHandler", "0"},
                                         {"IpcServer", "SendDataToClient", "-1"},
                                         {"IpcClient", "RegisterEventHandler", "0"},
                                         {"IpcClient", "UnregisterEventHandler", "0"},
                                         {"IpcClient", "SendDataToServer", "-1"}};
    const auto& [family, name, failure] = functions[step.op];
    const std::string fullName = "OndaroApi_" + family + "_" + name;
    const Scope scope(*this, API, fullName);
    try {
      if (step.op == CLIENT_WATCH && ScriptNumberOf(step) == NO_SCRIPT) {
        throw Raised{Fault::API, "apicallback is null", "(api/callback is null)"};
      }
      std::optional<Scope> wrapper, implementation;
      if (step.op >= SERVER_WATCH) {
        wrapper.emplace(*this, API, "NOndaroAPI::C" + family + "::" + name);
      }
      if (step.op >= SERVER_WATCH && step.op != CLIENT_UNWATCH) {
        implementation.emplace(*this, PAL, "NOndaroPAL::C" + family + "Impl::" + name,
                               step.op < SERVER_SEND ? ERROR : INFO);
      }
      return Body(step, EventNameOf(step), ScriptNumberOf(step));
    } catch (const Raised& raised) {
      if (raised.fault == Fault::FOREIGN) {
        throw;
      }
      Log(ERROR, API, fullName,
          "exception : " + raised.text + (step.op == SET ? "" : raised.detail));
      return failure;
    }
  }

  std::string Body(const Step& step, const std::string& name, unsigned handler) {
    switch (step.op) {
      case GET: {
        const std::string value = Get(KeyOf(step).property);
        return value + std::to_string(value.size());
      }
      case SET:
        return std::to_string(Set(KeyOf(step).property, ValueOf(step)));
      case WATCH:
        Watch(KeyOf(step).property, handler);
        break;
      case UNWATCH:
        Unwatch(KeyOf(step).property);
        break;
      case SERVER_WATCH:
        m_serverHandlers[name] = handler;
        break;
      case SERVER_UNWATCH:
        m_serverHandlers.clear();
        break;
      case SERVER_SEND:
        Send("SendDataToClient", name, ValueOf(step));
        break;
      case CLIENT_WATCH:
        m_subscription = m_subscription != 0 ? m_subscription : ++m_nSubscriptions;
        m_clientHandlers[name] = handler;
        break;
      case CLIENT_UNWATCH:
        m_subscription = 0;
        m_clientHandlers.clear();
        break;
      default:
        Send("SendDataToServer", name, ValueOf(step));
    }
    return "0";
  }

  static void RaiseIf(Fault fault) {
    if (fault > Fault::STATUS) {
      const std::string foreign = "of unknown type", text = "fault%s%n";
      throw Raised{fault, fault == Fault::FOREIGN ? foreign : text,
                   fault == Fault::API ? "(fault/%s%n)" : ""};
    }
  }

  void RunHandler(unsigned handler, const std::string& data) {
    if (handler == NO_SCRIPT) {
      return;
    }
    Note("EVENT", std::to_string(handler) + " " + data);
    if (m_nScriptsLeft-- > 0) {
      const Script script = ScriptOf(handler);
      for (const Step& step : script.steps) {
        Do(step);
      }
      RaiseIf(script.ending);
    }
  }

  using Handlers = std::map<std::string, unsigned>;

  /// The handler of that name, if any; what it throws does not pass back into C.
  bool CallHandler(const Handlers& handlers, const std::string& name, const std::string& data,
                   const std::string& function) {
    const auto entry = handlers.find(name);
    try {
      RunHandler(entry != handlers.end() ? entry->second : NO_SCRIPT, data);
    } catch (const Raised& raised) {
      Error(function, "exception : " + raised.text);
      return true;
    }
    return entry != handlers.end();
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
      return Read<std::string>(property->key, "get_string ", "SetregGetStr").value_or("error");
    }
    const auto number = Read<int>(property->key, "get_int ", "SetregGetInt");
    return number ? property->toText(*number) : "error";
  }

  std::string SystemId() {
    if (!std::exchange(m_hasModule, true)) {
      {
        const Scope scope(*this, PAL, "NOndaroPAL::CCoreAuthImpl::CCoreAuthImpl");
        Log(INFO, API, "CCoreAuthImpl", "EME instance = [0x] ,created. ");
      }
      const Scope scope(*this, API, "NOndaroAPI::CCoreAuth::CCoreAuth");
    }
    return "system-id";
  }

  bool Set(const std::string& key, const std::string& value) {
    Error("_SetProperty", "key : " + key);
    const Property* property = Find(key);
    if (key == "ONDARO_SET_PROCESS_GRP") {
      Log(INFO, API, "SetProcessGroup",
          "pid of caller process : " + std::to_string(getpid()) + ", pid of appid (" + value +
              ") : -1\n");
      return true;
    }
    if (property == nullptr) {
      return Error("_SetProperty", "property[" + key + "] is undefined"), false;
    }
    if (property->toText == FlagText) {
      return Write(property->key, value == "true" ? 1 : 0);
    }
    if (property->toText == nullptr) {
      return Write(property->key, value);
    }
    const auto word = USAGE.find(value);
    return Write(property->key, word != USAGE.end() ? word->second : 0);
  }

  void Watch(const std::string& key, unsigned handler) {
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
    m_configHandlers[key] = NO_SCRIPT;
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
    RaiseIf(m_fault);
    return m_fault == Fault::NONE;
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
    const Property* property = Find(KeyOf(step).property);
    const Content content = ContentOf(step);
    if (property == nullptr) {
      return;
    }
    std::optional<Value> value;
    if (content == Content::NUMBER || content == Content::TEXT) {
      value = content == Content::NUMBER ? Value(Pick(NUMBERS, step.b)) : Value(ValueOf(step));
      m_store[property->key] = *value;
    }
    const bool isSubscribed = m_subscribed.count(property->key) != 0;
    if (isSubscribed && content == Content::NO_NODE) {
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
    if (!property.isFiltered || std::exchange(m_cache[property.key], text) != text) {
      CallHandler(m_configHandlers, property.name, text, function);
    }
  }

  // ---- Messaging --------------------------------------------------------------------------------

  /// One that was subscribed again after the signal arrived does not get it.
  void Send(const std::string& function, const std::string& name, const std::string& data) {
    for (const auto& [what, text] : {std::pair("appEvt", name), std::pair("data", data)}) {
      if (g_utf8_validate(text.c_str(), -1, nullptr) == FALSE) {
        throw Raised{Fault::STANDARD, INVALID_CASE + what + " is not valid UTF-8"};
      }
    }
    const Message message = {name, data};
    if (function == "SendDataToServer") {
      Log(INFO, PAL, function, "Values are being sent. appEvt : " + name + ", surfaceId : " + data);
      m_onTheWay.emplace_back([=] { ArriveCall(message); });
    } else {
      Log(DEBUG, PAL, function, "DBUS success emit signal");
      m_onTheWay.emplace_back([=, subscription = m_subscription] {
        if (subscription != 0 && subscription == m_subscription) {
          ArriveSignal(message);
        }
      });
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
    const std::string where = " sender:own  object_path:" + BUS_PATH +
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
      m_onTheWay.emplace_back([=] { Log(INFO, PAL, COMPLETION, "g_dbus_proxy_call result : 0"); });
    }
    Log(INFO, PAL, "BusInterfaceMethodCallback", "Finish" + where);
  }

  void ArriveSignal(const Message& message) {
    const char* function = "_DbusSignalCallback";
    const std::string where = " sender_name:own, object_path:" + BUS_PATH +
                              ",  interface_name:" + BUS_NAME + ",  signal_name:sendDataToClient";
    const Scope scope(*this, PAL, "NOndaroPAL::CIpcClientImpl::_DbusSignalCallback");
    Error(function, "Start" + where);
    try {
      const Scope dispatch(*this, PAL, "NOndaroPAL::CIpcClientImpl::_CallDbusClientCallback");
      const auto handler = m_clientHandlers.find(message.name);
      RunHandler(handler != m_clientHandlers.end() ? handler->second : NO_SCRIPT, message.data);
    } catch (const Raised& raised) {
      Error(function, "exception : " + raised.text);
    }
    Error(function, "Finish" + where);
  }

  Lines m_lines;
  int m_nScriptsLeft = 0;
  Fault m_fault = Fault::NONE;
  Handlers m_configHandlers, m_serverHandlers, m_clientHandlers;

  std::map<std::string, Value> m_store;
  std::set<std::string> m_subscribed;
  std::vector<std::string> m_written;  // keys whose subscribers are still to be told
  std::map<std::string, std::string> m_cache;
  bool m_hasModule = false;

  int m_subscription = 0, m_nSubscriptions = 0;
  std::deque<std::function<void()>> m_onTheWay;
};

}  // namespace

Performer MakeModel() {
  const auto model = std::make_shared<Model>();
  return [model](const Step* step) { return model->Perform(step); };
}

}  // namespace ondaro::model
