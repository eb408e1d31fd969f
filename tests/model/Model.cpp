#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <utility>

#include "model/Subject.h"
#include "ondaro/api/CException.h"

namespace ondaro::model {

namespace {

constexpr int DEBUG = 3, INFO = 4, ERROR = 6;
constexpr const char *API = "ONDARO_API", *PAL = "ONDARO_PAL";
const std::string BUS_NAME = "com.halvex.tv.ondaro", BUS_PATH = "/com/halvex/tv/ondaro";
const std::string COMPLETION = "_SendDataToServerAyncResultCallback";
const std::string INVALID_CASE = "PAL Exception: InvalidCase: ";
const std::map<std::string, int> USAGE = {{"false", 0}, {"default", 1}, {"true", 2}, {"set", 3}};

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

std::string TextOfCaught() {
  try {
    throw;
  } catch (const std::exception& exception) {
    return std::string("exception : ") + exception.what();
  } catch (int) {
    return "exception : of unknown type";
  }
}

/// What the library is to do: its results, its events and its log, one after the other. Shares no
/// code with it but the exceptions that the steps are made to raise.
class Model : public Subject {
 public:
  Model() : Subject(m_values) {
    for (const std::string family : {"IpcClient", "IpcServer", "SystemConfig"}) {
      const std::string type = "C" + family, pal = "NOndaroPAL::" + type + "Impl::";
      {
        const Scope scope = Enter(PAL, pal + type + "Impl");
        if (family == "SystemConfig") {
          Log(INFO, PAL, type + "Impl", "Chip: NONE");
          Log(INFO, PAL, "_PrintPropertyMap", "SDR: 1");
          for (const char* map : {"GetFunctionMap", "SetFunctionMap", "CbManagerMap"}) {
            Enter(PAL, std::string(pal).append("_Init").append(map));
          }
        } else if (family == "IpcServer") {
          Log(DEBUG, PAL, type + "Impl", "g_bus_own_name return: 1");
        }
      }
      Enter(API, std::string("NOndaroAPI::").append(type).append("::").append(type));
    }
    const std::string connection = "pDbusConnection:0x,  name:" + BUS_NAME;
    const std::string node = "pThis->m_pBusNodeInfo";
    Log(DEBUG, PAL, "BusAcquiredCallback", connection);
    Log(DEBUG, PAL, "BusAcquiredCallback",
        node + ":0x, " + node + "->path:0x, " + node + "->path:" + BUS_PATH + ", " + node +
            "->interfaces[0]:0x");
    Log(INFO, PAL, "BusNameAcquiredCallback", connection);
  }

 private:
  using Scope = std::shared_ptr<void>;

  /// A traced function: "Entered" now and "Left" on every way out.
  Scope Enter(const std::string& tag, const std::string& name, int priority = INFO) {
    std::string tracer = tag == API ? "ONDARO_API_CALL_TRACER" : "ONDAROCALLTRACE";
    tracer += priority == ERROR ? "_ERROR" : "";
    const std::string signature = "[" + name + "()]";
    Log(priority, tag, tracer, signature + "Entered ");
    return {nullptr, [=](void*) { Log(priority, tag, "~" + tracer, signature + "Left"); }};
  }

  void Log(int priority, const std::string& tag, const std::string& function,
           const std::string& body) {
    m_lines.push_back(std::to_string(priority) + " " + tag + " " + function + ": " + body);
  }
  void Error(const std::string& function, const std::string& body) {
    Log(ERROR, PAL, function, body);
  }

  // ---- The frame of the exported functions ------------------------------------------------------

  std::string Call(const Step& step) override {
    static const struct {
      std::string family, name, failure;
    } functions[] = {{"SystemConfig", "GetProperty", "null"},
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
    const std::string function = "OndaroApi_" + family + "_" + name;
    const Scope scope = Enter(API, function);
    const bool hasNoKey = step.op <= SET && KeyOf(step).property == nullptr;
    if (hasNoKey || (step.op == SET && ValueOf(step) == nullptr)) {
      Log(ERROR, API, function,
          std::string(hasNoKey ? "key" : "val") + " is null in [" + function + "()]");
      return failure;
    }
    try {
      return step.op < SERVER_WATCH ? Configure(step) : Exchange(step, family, name);
    } catch (const NOndaroAPI::CException& raised) {
      const std::string &origin = raised.GetOrigin(), &message = raised.GetMessage();
      Log(ERROR, API, function,
          "exception : " + origin + message +
              (step.op == SET ? "" : "(" + origin + "/" + message + ")"));
    } catch (const std::exception&) {
      Log(ERROR, API, function, TextOfCaught());
    }
    return failure;
  }

  std::string Configure(const Step& step) {
    const std::string key = KeyOf(step).property;
    if (step.op == GET) {
      const std::string value = Get(key);
      return value + std::to_string(value.size());
    }
    if (step.op == SET) {
      return std::to_string(Set(key, ValueOf(step)));
    }
    if (step.op == WATCH) {
      Watch(key, ScriptOf(step));
    } else {
      Unwatch(key);
    }
    return "0";
  }

  using Handlers = std::map<std::string, unsigned>;

  std::string Exchange(const Step& step, const std::string& family, const std::string& operation) {
    const bool isRegistering = step.op == SERVER_WATCH || step.op == CLIENT_WATCH;
    const bool isUnregistering = step.op == SERVER_UNWATCH || step.op == CLIENT_UNWATCH;
    if (step.op == CLIENT_WATCH && ScriptOf(step) == NO_SCRIPT) {
      throw NOndaroAPI::CAPIException("api", "callback is null");
    }
    // Null is no string.
    const std::string event = isUnregistering ? "" : EventNameOf(step);
    const std::string data = isRegistering || isUnregistering ? "" : ValueOf(step);
    const Scope wrapper = Enter(API, "NOndaroAPI::C" + family + "::" + operation);
    Scope implementation;
    if (step.op != CLIENT_UNWATCH) {
      implementation = Enter(PAL, "NOndaroPAL::C" + family + "Impl::" + operation,
                             step.op < SERVER_SEND ? ERROR : INFO);
    }
    Handlers& handlers = step.op < CLIENT_WATCH ? m_serverHandlers : m_clientHandlers;
    if (isRegistering) {
      handlers[event] = ScriptOf(step);
    } else if (isUnregistering) {
      handlers.clear();
    } else {
      Send(operation, event, data);
    }
    if (step.op == CLIENT_WATCH && m_subscription == 0) {
      m_subscription = ++m_nSubscriptions;
    } else if (step.op == CLIENT_UNWATCH) {
      m_subscription = 0;
    }
    return "0";
  }

  /// The handler of that name, if any.
  void RunHandler(const Handlers& handlers, const std::string& name, const std::string& data) {
    const auto entry = handlers.find(name);
    if (entry != handlers.end() && entry->second != NO_SCRIPT) {
      RunScript(entry->second, data.c_str());
    }
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
        const Scope scope = Enter(PAL, "NOndaroPAL::CCoreAuthImpl::CCoreAuthImpl");
        Log(INFO, API, "CCoreAuthImpl", "EME instance = [0x] ,created. ");
      }
      Enter(API, "NOndaroAPI::CCoreAuth::CCoreAuth");
    }
    return "system-id";
  }

  bool Set(const std::string& key, const std::string& value) {
    Error("_SetProperty", "key : " + key);
    const Property* property = Find(key);
    if (key == "ONDARO_SET_PROCESS_GRP") {
      return SetProcessGroup(value);
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

  bool SetProcessGroup(const std::string& application) {
    const bool isRunning = application == APPLICATION;
    Log(INFO, API, "SetProcessGroup",
        "pid of caller process : " + std::to_string(getpid()) + ", pid of appid (" + application +
            ") : " + std::to_string(isRunning ? APPLICATION_PID : -1) + "\n");
    if (!isRunning) {
      Log(ERROR, API, "SetProcessGroup", "set process group fail\n");
    }
    return isRunning;
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
    const bool isDone = IsStoreWorking("subscribe " + property->key);
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
          IsStoreWorking("unsubscribe " + property->key) && m_subscribed.erase(property->key) != 0;
      LogSubscription("DeregisterSetregChangedCb", "Un register", property->key, isDone);
    }
  }

  void LogSubscription(const char* function, const std::string& verb, const std::string& key,
                       bool isDone) {
    Log(isDone ? DEBUG : ERROR, PAL, function,
        isDone ? "Succeed to " + verb + " for notification for key " + key + " "
               : "Failed to " + verb + " for setreg key " + key + " nottification");
  }

  template <typename T>
  std::optional<T> Read(const std::string& key, const char* call, const char* function) {
    const auto entry = IsStoreWorking(call + key) ? m_store.find(key) : m_store.end();
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
    if (!IsStoreWorking((number != nullptr ? "set_int " : "set_string ") + key)) {
      return Error(function, "Failed to set key " + key), false;
    }
    m_store[key] = value;
    const std::string text = number != nullptr ? std::to_string(*number) : std::get<0>(value);
    Log(INFO, PAL, function, "Succeed to set key " + key + " as " + text);
    return true;
  }

  void Notify(const std::string& key, const News& news) override {
    if (m_subscribed.count(key) != 0) {
      const Property& property = *Find(key);
      try {
        Tell(property, news);
      } catch (...) {
        Error(property.callback + "ChangedCallback", TextOfCaught());
      }
    }
  }

  void Tell(const Property& property, const News& news) {
    if (!news.hasNode) {
      throw std::runtime_error("PAL Exception: Nullptr: pKeyNode");
    }
    const bool isText = property.toText == nullptr;
    if (!news.value || std::holds_alternative<std::string>(*news.value) != isText) {
      const std::string reader = isText ? "GetSetregStrFromKeynode" : "GetSetregIntFromKeynode";
      Error(reader, std::string("failed to get ") + (isText ? "str" : "int") + " from keynode");
      Error(property.callback + "ChangedCallback", "throw " + reader);
      throw std::runtime_error(INVALID_CASE + reader);
    }
    const std::string text =
        isText ? std::get<0>(*news.value) : property.toText(std::get<1>(*news.value));
    if (!property.isFiltered || std::exchange(m_cache[property.key], text) != text) {
      RunHandler(m_configHandlers, property.name, text);
    }
  }

  // ---- Messaging --------------------------------------------------------------------------------

  /// A signal reaches no client that subscribed again after it arrived.
  void Send(const std::string& operation, const std::string& event, const std::string& data) {
    for (const auto& [what, text] : {std::pair("appEvt", event), std::pair("data", data)}) {
      if (g_utf8_validate(text.c_str(), -1, nullptr) == FALSE) {
        throw std::runtime_error(INVALID_CASE + what + " is not valid UTF-8");
      }
    }
    if (operation == "SendDataToServer") {
      Log(INFO, PAL, operation,
          "Values are being sent. appEvt : " + event + ", surfaceId : " + data);
      m_onTheWay.emplace_back([=] { ArriveCall(event, data); });
    } else {
      Log(DEBUG, PAL, operation, "DBUS success emit signal");
      m_onTheWay.emplace_back([=, subscription = m_subscription] {
        if (subscription != 0 && subscription == m_subscription) {
          ArriveSignal(event, data);
        }
      });
    }
  }

  /// In the order in which they were sent.
  void Deliver() override {
    for (; !m_onTheWay.empty(); m_onTheWay.pop_front()) {
      m_onTheWay.front()();
    }
  }

  void ArriveCall(const std::string& name, const std::string& data) {
    const std::string where = " sender  object_path:" + BUS_PATH + "  interface_name:" + BUS_NAME +
                              "  method_name:sendDataToServer";
    const char* function = "HandleAppData";
    Log(INFO, PAL, "BusInterfaceMethodCallback", "Start" + where);
    {
      const Scope scope = Enter(PAL, "NOndaroPAL::CIpcServerImpl::HandleAppData");
      Log(INFO, PAL, function, "appEvt : " + name + ", data : " + data);
      if (m_serverHandlers.count(name) == 0) {
        Error(function, "appEvt " + name + " is not registered");
        for (const auto& entry : m_serverHandlers) {
          Error(function, "registered appEvt : " + entry.first);
        }
      }
      try {
        RunHandler(m_serverHandlers, name, data);
      } catch (...) {
        Error(function, TextOfCaught());
      }
      m_onTheWay.emplace_back([=] { Log(INFO, PAL, COMPLETION, "g_dbus_proxy_call result : 0"); });
    }
    Log(INFO, PAL, "BusInterfaceMethodCallback", "Finish" + where);
  }

  void ArriveSignal(const std::string& name, const std::string& data) {
    const char* function = "_DbusSignalCallback";
    const std::string where = " sender_name, object_path:" + BUS_PATH +
                              ",  interface_name:" + BUS_NAME + ",  signal_name:sendDataToClient";
    const Scope scope = Enter(PAL, "NOndaroPAL::CIpcClientImpl::_DbusSignalCallback");
    Error(function, "Start" + where);
    try {
      const Scope dispatch = Enter(PAL, "NOndaroPAL::CIpcClientImpl::_CallDbusClientCallback");
      RunHandler(m_clientHandlers, name, data);
    } catch (...) {
      Error(function, TextOfCaught());
    }
    Error(function, "Finish" + where);
  }

  Values m_values;
  Handlers m_configHandlers, m_serverHandlers, m_clientHandlers;
  std::set<std::string> m_subscribed;
  std::map<std::string, std::string> m_cache;
  bool m_hasModule = false;

  int m_subscription = 0, m_nSubscriptions = 0;
  std::deque<std::function<void()>> m_onTheWay;
};

}  // namespace

Subject& TheModel() {
  static auto* const model = new Model;
  return *model;
}

}  // namespace ondaro::model
