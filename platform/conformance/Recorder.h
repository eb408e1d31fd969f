#ifndef ONDARO_PLATFORM_CONFORMANCE_RECORDER_H
#define ONDARO_PLATFORM_CONFORMANCE_RECORDER_H

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/SettingsStore.h"

namespace conformance {

/// What a change callback read from its node.
struct Event {
  std::string name;  // empty for none
  std::optional<std::string> text;
  int number;
  int error;  // errno, which was 0 before the integer was read
};

/// The user data of a subscription: keeps what its callback is given, on any thread.
class Recorder {
 public:
  using Hook = std::function<void(platform_settings_node*)>;

  void Record(platform_settings_node* node);
  void BeforeEach(Hook hook);

  std::vector<Event> Events() const;
  int CountOf(int number) const;
  bool WaitForCount(std::size_t count) const;
  bool WaitForNumber(int number) const;

 private:
  mutable std::mutex m_mutex;
  Hook m_hook;
  std::vector<Event> m_events;
};

/// Lives until the process ends: a broken port may call back at any time.
Recorder& NewRecorder();

/// Calls so far with user data that is no recorder.
std::size_t StrayCalls();

// Different callbacks that do the same: a subscription is identified by its callback.
void OnChange(platform_settings_node* node, void* recorder);
void OnOtherChange(platform_settings_node* node, void* recorder);
void OnFenceChange(platform_settings_node* node, void* recorder);

/// Ends when it goes out of scope, if not before.
class Subscription {
 public:
  Subscription(std::string key, platform_settings_changed_cb callback, Recorder& recorder);
  ~Subscription();
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  int Status() const { return m_status; }
  int Cancel();

 private:
  const std::string m_key;
  const platform_settings_changed_cb m_callback;
  const int m_status;
  bool m_isCancelled = false;
};

/// Delivers what is ready to be delivered.
void Drain();

}  // namespace conformance

#endif
