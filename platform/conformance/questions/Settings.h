#ifndef ONDARO_PLATFORM_CONFORMANCE_QUESTIONS_SETTINGS_H
#define ONDARO_PLATFORM_CONFORMANCE_QUESTIONS_SETTINGS_H

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "../Question.h"
#include "platform/SettingsStore.h"

// What the questions about settings and their changes share.

namespace conformance {

/// A text, "ta", or an integer, "i1", or neither. Never holds NUL.
using Value = std::string;
using Values = std::vector<Value>;

inline const Value NOTHING = "-";
Value Text(const std::string& text);
Value Number(int number);
/// The text "a", the integer 1, nothing.
std::string ShowValue(const Value& value);
/// 64 KiB of any bytes, with blanks and newlines at both ends.
std::string LongestText();

inline constexpr char FIRST[] = "first";
inline constexpr char SECOND[] = "second";
inline constexpr char MISSING[] = "missing";  // never written
/// Alike, and no two the same.
inline constexpr const char* ALIKE[] = {FIRST,      "first2",   "First",    "firs",
                                        "pair/one", "pair_one", "pair-one", "pair.one"};
/// One that no run has written before, as long as this one does not.
std::string FreshName();
/// A key of the kit's, below the first root.
std::string Key(const std::string& name);
/// Below each root; the kit's key of that name.
void ForEachRoot(const std::function<void(const std::string& key)>& use,
                 const std::string& name = FIRST);

/// The status of the write.
int TryWrite(const std::string& key, const Value& value);
/// Blocked by SET-05 or SET-08 if it fails.
void Write(const std::string& key, const Value& value);
Value Read(const std::string& key);

/// What a change callback read from its node.
struct Event {
  const char* name = nullptr;  // interned
  Value text = NOTHING;
  int number = 0;
  int error = 0;      // errno after the integer was read, 0 before
  int errorKept = 0;  // errno after the integer was read, KEPT before
  std::thread::id thread;

  static constexpr int KEPT = 33;
  Value Carried() const;
};

/// The user data of subscriptions: keeps what callbacks are given, on any thread. Lives until the
/// process ends: a broken port may call back at any time.
class Recorder {
 public:
  using Hook = std::function<void(platform_settings_node*)>;

  static Recorder& New();
  void Record(platform_settings_node* node);
  /// Called first of all by each event, in the callback.
  void SetHook(Hook hook);
  std::vector<Event> Events() const;
  Values Carried() const;
  int Count() const { return static_cast<int>(Events().size()); }
  /// False when patience ended before.
  bool WaitForCount(int count) const;
  bool WaitForLast(const Value& value) const;

 private:
  mutable std::mutex m_mutex;
  Hook m_hook;
  std::vector<Event> m_events;
};

// Different callbacks that do the same: a subscription is identified by its callback.
void OnChange(platform_settings_node* node, void* recorder);
void OnOtherChange(platform_settings_node* node, void* recorder);

/// Ends when it goes out of scope, if not before.
class Subscription {
 public:
  /// Blocked by SET-17 if it fails.
  Subscription(std::string key, platform_settings_changed_cb callback, Recorder& recorder);
  ~Subscription() { Cancel(); }
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  int Cancel();

 private:
  const std::string m_key;
  const platform_settings_changed_cb m_callback;
  bool m_isCancelled = false;
};

/// Ends the events of `key` with one of its own, and waits for that: what the recorder has then,
/// without it, is all that comes.
Values AllUntilNow(const std::string& key, const Recorder& recorder);
/// Fails unless these, in this order, are all the events of the recorder.
void Carries(const std::string& done, const std::string& key, const Recorder& recorder,
             const Values& expected);

}  // namespace conformance

#endif
