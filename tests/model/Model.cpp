#include <glib.h>

#include <algorithm>
#include <deque>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>

#include "model/Subject.h"

namespace ondaro::model {

namespace {

constexpr int DEBUG = 3, INFO = 4, ERROR = 6;
constexpr const char *API = "ONDARO_API", *PAL = "ONDARO_PAL";
const std::string INVALID_CASE = "PAL Exception: InvalidCase: ";

const Key* Find(const std::string& nameOrStore) {
  const auto* found = std::find_if(std::begin(KEYS), std::end(KEYS), [&](const Key& key) {
    return !key.store.empty() && (nameOrStore == key.name || nameOrStore == key.store);
  });
  return found != std::end(KEYS) ? found : nullptr;
}

bool IsOfItsType(const Key& key, const Value& value) {
  return std::holds_alternative<std::string>(value) == key.words.empty();
}

std::string TextOf(const Key& key, const Value& value) {
  const int* const number = std::get_if<int>(&value);
  if (number == nullptr) {
    return std::get<std::string>(value);
  }
  const auto index = static_cast<std::size_t>(*number);
  return index < key.words.size() ? key.words[index] : key.words == FLAG ? "false" : "";
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
    std::ifstream start(ONDARO_TEST_START);
    for (std::string line; std::getline(start, line);) {
      m_lines.push_back(line);
    }
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
    static const std::string FAMILIES[] = {"SystemConfig", "IpcServer", "IpcClient"};
    static const std::string SENDS[] = {"SetProperty", "SendDataToClient", "SendDataToServer"};
    const std::string& family = FAMILIES[step.family];
    const std::string operation = step.op == GET     ? "GetProperty"
                                  : step.op == SEND  ? SENDS[step.family]
                                  : step.op == WATCH ? "RegisterEventHandler"
                                                     : "UnregisterEventHandler";
    const std::string function = "OndaroApi_" + family + "_" + operation;
    const bool isSet = step.op == SEND && step.family == CONFIG;
    const char* const failure = step.op == GET ? "null" : step.op == SEND && !isSet ? "-1" : "0";
    const Scope scope = Enter(API, function);
    const bool hasNoKey = (step.op == GET || isSet) && NameOf(step) == nullptr;
    if (hasNoKey || (isSet && ValueOf(step) == nullptr)) {
      const std::string missing = hasNoKey ? "key" : "val";
      Log(ERROR, API, function, missing + " is null in [" + function + "()]");
      return failure;
    }
    try {
      return step.op == GET          ? Get(NameOf(step))
             : isSet                 ? Set(NameOf(step), ValueOf(step))
             : step.family == CONFIG ? Watch(NameOf(step), step.op == WATCH, ScriptOf(step))
                                     : Exchange(step, family, operation);
    } catch (const NOndaroAPI::CException& raised) {
      const std::string &origin = raised.GetOrigin(), &message = raised.GetMessage();
      const std::string parts = isSet ? "" : "(" + origin + "/" + message + ")";
      Log(ERROR, API, function, "exception : " + origin + message + parts);
    } catch (const std::exception&) {
      Log(ERROR, API, function, TextOfCaught());
    }
    return failure;
  }

  std::string Exchange(const Step& step, const std::string& family, const std::string& operation) {
    const bool isServer = step.family == SERVER;
    if (step.op == WATCH && !isServer && ScriptOf(step) == NO_SCRIPT) {
      throw NOndaroAPI::CAPIException("api", "callback is null");
    }
    // Null is no string.
    const std::string event = step.op != UNWATCH ? NameOf(step) : "";
    const std::string data = step.op == SEND ? ValueOf(step) : "";
    const Scope wrapper = Enter(API, "NOndaroAPI::C" + family + "::" + operation);
    const std::string implementation = "NOndaroPAL::C" + family + "Impl::" + operation;
    const int priority = isServer && step.op != SEND ? ERROR : INFO;
    const bool isTraced = isServer || step.op != UNWATCH;
    const Scope inner = isTraced ? Enter(PAL, implementation, priority) : nullptr;
    if (step.op == SEND) {
      Send(operation, event, data);
    } else if (step.op == WATCH) {
      m_handlers[step.family][event] = ScriptOf(step);
    } else {
      m_handlers[step.family].clear();
      m_nSubscriptionsEnded += isServer ? 0 : 1;
    }
    return "0";
  }

  /// The handler of that name, if any. What it raises ends `dispatch` and is told by `function`.
  void RunHandler(Family family, const std::string& name, const std::string& data,
                  const std::string& function, Scope dispatch = nullptr) {
    try {
      const auto entry = m_handlers[family].find(name);
      if (entry != m_handlers[family].end() && entry->second != NO_SCRIPT) {
        RunScript(entry->second, data.c_str());
      }
    } catch (...) {
      dispatch.reset();
      Error(function, TextOfCaught());
    }
  }

  // ---- Properties -------------------------------------------------------------------------------

  std::string Get(const std::string& mixedName) {
    Error("_GetProperty", "key : " + mixedName);
    if (mixedName == "SDR") {
      return "11";  // behind each value is its length
    }
    const std::size_t colon = mixedName.find(':');
    const std::string name = mixedName.substr(0, colon);
    const auto logPart = [&](const char* function, const std::string& part) {
      const bool hasParts = colon != std::string::npos;
      Log(hasParts ? INFO : DEBUG, PAL, function, hasParts ? part : "data is not included");
    };
    logPart("_ExtractKeyFromMixedKey", "key : " + name);
    const Key* const key = Find(name);
    if (key == nullptr) {
      Error("_GetProperty", "property[" + mixedName + "] is undefined");
      return "0";
    }
    logPart("_ExtractDataFromMixedKey", "data : " + mixedName.substr(colon + 1));
    const auto value = Read(*key);
    const std::string text = value ? TextOf(*key, *value) : "error";
    return text + std::to_string(text.size());
  }

  std::string Set(const std::string& name, const std::string& text) {
    Error("_SetProperty", "key : " + name);
    const Key* const key = Find(name);
    if (key == nullptr) {
      Error("_SetProperty", "property[" + name + "] is undefined");
      return "0";
    }
    const auto word = std::find(key->words.begin(), key->words.end(), text);
    const int number = word != key->words.end() ? int(word - key->words.begin()) : 0;
    const bool isText = key->words.empty();
    const char* const function = isText ? "SetregSetStr" : "SetregSetInt";
    if (!IsStoreWorking((isText ? "set_string " : "set_int ") + key->store)) {
      Error(function, "Failed to set key " + key->store);
      return "0";
    }
    m_store[key->store] = isText ? Value(text) : Value(number);
    Log(INFO, PAL, function,
        "Succeed to set key " + key->store + " as " + (isText ? text : std::to_string(number)));
    return "1";
  }

  std::optional<Value> Read(const Key& key) {
    const bool isText = key.words.empty();
    const char* const function = isText ? "SetregGetStr" : "SetregGetInt";
    const bool isWorking = IsStoreWorking((isText ? "get_string " : "get_int ") + key.store);
    const auto entry = m_store.find(key.store);
    if (!isWorking || entry == m_store.end() || !IsOfItsType(key, entry->second)) {
      Error(function, "Failed to get key " + key.store);
      return std::nullopt;
    }
    if (!isText) {
      Log(INFO, PAL, function, "Succeed to get key " + key.store);
    }
    return entry->second;
  }

  std::string Watch(const std::string& name, bool isOn, unsigned script) {
    if (isOn) {
      Error("RegisterEventHandler", "key : " + name);
    }
    m_handlers[CONFIG][name] = isOn ? script : NO_SCRIPT;
    const Key* const key = Find(name);
    if (key == nullptr || key->callback.empty()) {
      return "0";
    }
    if (const auto value = isOn && key->isFiltered ? Read(*key) : std::nullopt) {
      m_cache[name] = TextOf(*key, *value);
    }
    bool& isSubscribed = m_isSubscribed[key->store];
    const bool isDone = IsStoreWorking((isOn ? "subscribe " : "unsubscribe ") + key->store) &&
                        (isOn || isSubscribed);
    isSubscribed = isDone ? isOn : isSubscribed;
    const std::string verb = isOn ? "register" : "Un register";
    Log(isDone ? DEBUG : ERROR, PAL, isOn ? "RegisterSetregChangedCb" : "DeregisterSetregChangedCb",
        isDone ? "Succeed to " + verb + " for notification for key " + key->store + " "
               : "Failed to " + verb + " for setreg key " + key->store + " nottification");
    return "0";
  }

  void Notify(const std::string& store, const std::optional<Value>* value) override {
    if (!m_isSubscribed[store]) {
      return;
    }
    const Key& key = *Find(store);
    const std::string function = key.callback + "ChangedCallback";
    if (value == nullptr) {
      Error(function, "exception : PAL Exception: Nullptr: pKeyNode");
    } else if (!*value || !IsOfItsType(key, **value)) {
      const bool isText = key.words.empty();
      const std::string reader = isText ? "GetSetregStrFromKeynode" : "GetSetregIntFromKeynode";
      Error(reader, std::string("failed to get ") + (isText ? "str" : "int") + " from keynode");
      Error(function, "throw " + reader);
      Error(function, "exception : " + INVALID_CASE + reader);
    } else {
      const std::string text = TextOf(key, **value);
      if (!key.isFiltered || std::exchange(m_cache[key.name], text) != text) {
        RunHandler(CONFIG, key.name, text, function);
      }
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
      return;
    }
    Log(DEBUG, PAL, operation, "DBUS success emit signal");
    if (!m_handlers[CLIENT].empty()) {
      m_onTheWay.emplace_back([=, ended = m_nSubscriptionsEnded] {
        if (ended == m_nSubscriptionsEnded) {
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
    const std::string where =
        " sender  object_path:/com/halvex/tv/ondaro  interface_name:com.halvex.tv.ondaro  "
        "method_name:sendDataToServer";
    const char* const function = "HandleAppData";
    Log(INFO, PAL, "BusInterfaceMethodCallback", "Start" + where);
    {
      const Scope scope = Enter(PAL, "NOndaroPAL::CIpcServerImpl::HandleAppData");
      Log(INFO, PAL, function, "appEvt : " + name + ", data : " + data);
      if (m_handlers[SERVER].count(name) == 0) {
        Error(function, "appEvt " + name + " is not registered");
        for (const auto& entry : m_handlers[SERVER]) {
          Error(function, "registered appEvt : " + entry.first);
        }
      }
      RunHandler(SERVER, name, data, function);
      m_onTheWay.emplace_back([=] {
        Log(INFO, PAL, "_SendDataToServerAyncResultCallback", "g_dbus_proxy_call result : 0");
      });
    }
    Log(INFO, PAL, "BusInterfaceMethodCallback", "Finish" + where);
  }

  void ArriveSignal(const std::string& name, const std::string& data) {
    const char* const function = "_DbusSignalCallback";
    const std::string where =
        " sender_name, object_path:/com/halvex/tv/ondaro,  interface_name:com.halvex.tv.ondaro,  "
        "signal_name:sendDataToClient";
    const Scope scope = Enter(PAL, "NOndaroPAL::CIpcClientImpl::_DbusSignalCallback");
    Error(function, "Start" + where);
    RunHandler(CLIENT, name, data, function,
               Enter(PAL, "NOndaroPAL::CIpcClientImpl::_CallDbusClientCallback"));
    Error(function, "Finish" + where);
  }

  Values m_values;
  std::map<std::string, unsigned> m_handlers[3];  // their scripts, by family and name
  std::map<std::string, bool> m_isSubscribed;     // by the store's keys
  std::map<std::string, std::string> m_cache;
  int m_nSubscriptionsEnded = 0;
  std::deque<std::function<void()>> m_onTheWay;
};

}  // namespace

Subject& TheModel() {
  static auto* const model = new Model;
  return *model;
}

}  // namespace ondaro::model
