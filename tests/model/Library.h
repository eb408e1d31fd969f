#ifndef ONDARO_TESTS_MODEL_LIBRARY_H
#define ONDARO_TESTS_MODEL_LIBRARY_H

#include <functional>
#include <string>
#include <vector>

#include "bus/PlainPeer.h"
#include "bus/PrivateBus.h"
#include "library/FakePlatform.h"
#include "model/Step.h"
#include "ondaro/OndaroApi.h"

namespace ondaro::model {

/// Does the steps to the library, on a bus of its own and over the scripted platform. One a
/// process: the library's services live as long.
class Library {
 public:
  Library();
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  /// What was observed of one step, in order: log lines, events, calls to the platform, results.
  std::vector<std::string> Perform(const Step& step);

  /// To be done last: nothing may arrive when this is gone.
  void Finish();

 private:
  struct Slot {
    Library* library;
    unsigned script;
  };
  using Handler = std::function<void(const std::string&)>;

  void Do(const Step& step);
  std::string Call(const Step& step);
  std::string CallWrapper(const Step& step);
  bool IsWrapperCall(const Step& step) const;
  std::string Get(OndaroApi_SystemConfig_h handle, const char* key, bool isLengthGiven);
  std::string Create(Family family);
  void Change(const Step& step);
  void ScriptModule(const Step& step);
  std::string Sign(const Step& step);
  void PeerSend(const Step& step);
  void GiveOrTakeName();
  void Settle();
  void Deliver();
  void AwaitArrival();
  void CallBus(const char* member, GVariant* arguments);
  /// All that was sent before has arrived and waits for the main context.
  void Barrier() { CallBus("GetId", nullptr); }

  static void OnEvent(const char* data, void* slotOfScript);
  static void RaiseIf(Fault fault, const char* origin);
  Handler HandlerOf(const Step& step);
  void Note(const std::string& kind, const std::string& what);

  FakePlatform& m_fake = FakePlatform::Get();
  test::PrivateBus m_bus;
  test::PlainPeer m_peer;
  GDBusConnection* m_connection;
  std::string m_ownName;
  std::vector<Slot> m_slots;
  int m_nScriptsLeft = 0;
  Fault m_storeFault = Fault::NONE;
  Fault m_moduleFault = Fault::NONE;
  std::vector<std::string> m_written;
  bool m_ownsName = false;
  bool m_hasLostName = false;

  OndaroApi_SystemConfig_h m_config = nullptr;
  OndaroApi_CoreAuth_h m_auth = nullptr;
  OndaroApi_IpcClient_h m_client = nullptr;
  OndaroApi_IpcServer_h m_server = nullptr;
  OndaroApi_CoreAuthInfoRW_t m_records[RECORDS] = {};
};

}  // namespace ondaro::model

#endif
