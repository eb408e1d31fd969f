#ifndef ONDARO_TESTS_MODEL_MODEL_H
#define ONDARO_TESTS_MODEL_MODEL_H

#include <array>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "model/Step.h"

namespace ondaro::model {

/// Wrong on purpose, to show that a difference is found.
enum class Mutation { NONE, UNFILTERED, USAGE_WORD, EARLY_REPLY, OLD_SUBSCRIPTION, COUNT };

/// What the library is to do: its results, its events and its log, one after the other. Shares no
/// code with it.
class Model {
 public:
  explicit Model(Mutation mutation) : m_mutation(mutation) {}

  /// What is to be observed of one step, in order.
  std::vector<std::string> Perform(const Step& step);

 private:
  struct Raised {
    enum Kind { BROKEN, API, STANDARD, FOREIGN } kind;
    std::string text;
    std::string detail = {};
  };
  struct Property;
  struct Message {
    enum Kind { CALL, SIGNAL, REPLY, FAILURE } kind;
    std::string sender, name, data, type;
    int subscription;
  };
  class Scope;
  struct Forwarded;
  using Value = std::variant<std::string, int>;
  using Handlers = std::map<std::string, int>;  // a script or one of the constants in the source

  void Do(const Step& step);
  std::string Call(const Step& step);
  std::string Body(const Step& step, const std::string& value);
  void Construct(Family family);
  std::string Create(Family family);
  static void RaiseIf(Fault fault, const std::string& origin);
  void RunHandler(int handler, const std::string& data);
  template <typename TBody>
  void Contained(const std::string& function, const TBody& body);

  static const Property* Find(const std::string& nameOrKey);
  std::string Get(const std::string& mixedKey);
  bool Set(const std::string& key, const std::string& value);
  bool SetProcessGroup(const std::string& appId);
  void Watch(const std::string& key, int handler);
  void Unwatch(const std::string& key);
  bool StoreCall(const std::string& call);
  std::optional<std::string> ReadText(const std::string& key);
  std::optional<int> ReadNumber(const std::string& key);
  bool Write(const std::string& key, const Value& value);
  void Change(const Step& step);
  void Deliver(const Property& property, const std::optional<Value>& value);

  void OpenModule();
  bool ModuleCall(const std::string& call);
  void ScriptModule(const Step& step);
  std::string Generate(const Step& step);
  std::string Sign(const Step& step);
  std::string SystemId();

  void RequireSendable(const std::string& name, const std::string& data) const;
  void ServerSend(const std::string& name, const std::string& data);
  void ClientWatch(const std::string& name, int handler);
  void ClientUnwatch();
  void ClientSend(const std::string& name, const std::string& data);
  void PeerSend(const Step& step);
  void GiveOrTakeName();
  void Dispatch(const Message& message);
  void DispatchCall(const Message& message);
  void DispatchSignal(const Message& message);
  void Settle();

  void Log(int priority, const char* tag, const std::string& function, const std::string& body);
  void Note(const std::string& kind, const std::string& what);

  Mutation m_mutation;
  std::vector<std::string> m_lines;
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

}  // namespace ondaro::model

#endif
