#ifndef ONDARO_PLATFORM_CONFORMANCE_QUESTIONS_SETTINGS_H
#define ONDARO_PLATFORM_CONFORMANCE_QUESTIONS_SETTINGS_H

#include <mutex>
#include <thread>
#include <utility>

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
/// Tells where they begin to differ.
void SameValues(const std::string& done, const Values& expected, const Values& came);
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
/// Below these every key is the kit's own.
Arguments Roots();
/// The key of that name below each root.
Arguments Keys(const std::string& name = FIRST);
/// Below the first root.
std::string Key(const std::string& name);

/// The status of the write.
int TryWrite(const std::string& key, const Value& value);
/// Blocked by SET-05 or SET-08 if it fails.
void Write(const std::string& key, const Value& value);
/// Whether free() may have it is another question; until the end it stays.
char* ReadText(const std::string& key);
Value Read(const std::string& key);

/// What a change callback read from its node.
struct Event {
  std::string name;     // or FAILS
  std::string text;     // in words
  std::string integer;  // in words, with what became of errno
  Value value = NOTHING;
  std::thread::id thread;
};

inline constexpr char FAILS[] = "fails";

/// The user data of subscriptions: keeps what callbacks are given, on any thread. Lives until the
/// process ends: a broken port may call back at any time.
class Recorder {
 public:
  using Hook = std::function<void(platform_settings_node*)>;

  Recorder(std::string key, Hook hook) : m_key(std::move(key)), m_hook(std::move(hook)) {}
  /// The hook is called first of all by each event, in the callback.
  static Recorder& New(const std::string& key, const Hook& hook = nullptr);
  const std::string& Key() const { return m_key; }
  void Record(platform_settings_node* node);
  std::vector<Event> Events() const;
  Values Carried() const;
  int Count() const { return static_cast<int>(Events().size()); }
  /// False when patience ended before.
  bool WaitForCount(int count) const;
  bool WaitForLast(const Value& value) const;

 private:
  const std::string m_key;
  const Hook m_hook;
  mutable std::mutex m_mutex;
  std::vector<Event> m_events;
};

// Different callbacks that do the same: a subscription is identified by its callback.
void OnChange(platform_settings_node* node, void* recorder);
void OnOtherChange(platform_settings_node* node, void* recorder);

/// A subscription of the recorder's key has the status 0.
void Subscribes(const std::string& done, Recorder& recorder,
                platform_settings_changed_cb callback = OnChange);

/// Ends when it goes out of scope, if not before.
class Subscription {
 public:
  /// Blocked by SET-17 if it fails.
  explicit Subscription(Recorder& recorder, platform_settings_changed_cb callback = OnChange);
  explicit Subscription(const std::string& key, platform_settings_changed_cb callback = OnChange,
                        const Recorder::Hook& hook = nullptr)
      : Subscription(Recorder::New(key, hook), callback) {}
  ~Subscription() { Cancel(); }
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  Recorder& operator*() const { return m_recorder; }
  Recorder* operator->() const { return &m_recorder; }
  int Cancel();

 private:
  Recorder& m_recorder;
  const platform_settings_changed_cb m_callback;
  bool m_isCancelled = false;
};

/// Ends the events of the recorder's key with one of its own, and waits for that: what it has then,
/// without this one, is all that comes.
Values AllUntilNow(const Recorder& recorder);
/// Fails unless these, in this order, are all the events of the recorder.
void Carries(const std::string& done, const Recorder& recorder, const Values& expected);

/// Another process, which writes these; ended, the values are written.
Helper Writing(const std::string& key, Values values);
void WriteElsewhere(const std::string& key, const Values& values);

}  // namespace conformance

#endif
