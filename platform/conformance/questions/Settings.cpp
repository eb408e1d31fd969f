#include "Settings.h"

#include <glib.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <memory>
#include <numeric>
#include <utility>

namespace conformance {
namespace {

const Value LAST = Text("no more of these");

std::mutex g_recordersMutex;
std::atomic<int> g_strays{0};  // calls with user data that is no recorder

std::deque<Recorder>& Recorders() {
  static std::deque<Recorder>& recorders = *std::make_unique<std::deque<Recorder>>().release();
  return recorders;
}

/// What comes back is looked at only once it is known to be what was given.
void Take(platform_settings_node* node, const void* userData) {
  std::unique_lock lock(g_recordersMutex);
  const auto found = std::find_if(Recorders().begin(), Recorders().end(),
                                  [&](const Recorder& one) { return &one == userData; });
  const bool isKnown = found != Recorders().end();
  lock.unlock();
  if (isKnown) {
    found->Record(node);
  } else {
    ++g_strays;
  }
}

bool WaitForEvents(const std::function<bool()>& haveCome) {
  const bool isIn = WaitFor([&] { return haveCome() || g_strays != 0; });
  Needs("SET-18", g_strays == 0, "a callback came with user data that nobody gave");
  return isIn;
}

}  // namespace

Value Text(const std::string& text) { return "t" + text; }

Value Number(int number) { return "i" + std::to_string(number); }

std::string ShowValue(const Value& value) {
  const std::string rest = value.substr(1);
  return value[0] == 't'   ? "the text " + Show(rest)
         : value[0] == 'i' ? "the integer " + rest
                           : "nothing";
}

std::string LongestText() {
  const std::string ends = " \t\n";
  std::string text(std::size_t{64} * 1024 - ends.size(), 'x');
  text.replace(0, ends.size(), ends);
  std::iota(text.begin() + 3, text.begin() + 3 + 255, '\1');
  return text + ends;
}

std::string FreshName() {
  const std::string& scratch = TheContext().scratch;
  return "fresh" + scratch.substr(scratch.rfind('-') + 1);
}

std::string Key(const std::string& name) {
  return TheContext().declaration.SettingsRoots().front() + '/' + name;
}

void ForEachRoot(const std::function<void(const std::string&)>& use, const std::string& name) {
  for (const std::string& root : TheContext().declaration.SettingsRoots()) {
    std::string key = root;
    use(key.append("/").append(name));
  }
}

int TryWrite(const std::string& key, const Value& value) {
  const std::string rest = value.substr(1);
  return value[0] == 't' ? platform_settings_set_string(key.c_str(), rest.c_str())
                         : platform_settings_set_int(key.c_str(), std::stoi(rest));
}

void Write(const std::string& key, const Value& value) {
  Needs(value[0] == 't' ? "SET-05" : "SET-08", TryWrite(key, value) == 0,
        "a write of " + ShowValue(value) + " to " + key + " failed");
}

Value Read(const std::string& key) {
  // Whether free() may have them is another question; until the end they stay.
  static std::deque<char*>& kept = *std::make_unique<std::deque<char*>>().release();
  if (char* const text = platform_settings_get_string(key.c_str())) {
    kept.push_back(text);
    return Text(text);
  }
  int number = 0;
  return platform_settings_get_int(key.c_str(), &number) == 0 ? Number(number) : NOTHING;
}

Value Event::Carried() const { return text != NOTHING ? text : error == 0 ? Number(number) : text; }

Recorder& Recorder::New() {
  const std::lock_guard lock(g_recordersMutex);
  return Recorders().emplace_back();
}

void Recorder::Record(platform_settings_node* node) {
  std::unique_lock lock(m_mutex);
  const Hook hook = m_hook;
  lock.unlock();
  if (hook) {
    hook(node);
  }
  Event event;
  event.name = g_intern_string(platform_settings_node_name(node));
  const char* const text = platform_settings_node_string(node);
  event.text = text != nullptr ? Text(text) : NOTHING;
  errno = 0;
  event.number = platform_settings_node_int(node);
  event.error = errno;
  errno = Event::KEPT;
  platform_settings_node_int(node);
  event.errorKept = errno;
  event.thread = std::this_thread::get_id();
  lock.lock();
  m_events.push_back(event);
}

void Recorder::SetHook(Hook hook) {
  const std::lock_guard lock(m_mutex);
  m_hook = std::move(hook);
}

std::vector<Event> Recorder::Events() const {
  const std::lock_guard lock(m_mutex);
  return m_events;
}

Values Recorder::Carried() const {
  Values carried;
  for (const Event& event : Events()) {
    carried.push_back(event.Carried());
  }
  return carried;
}

bool Recorder::WaitForCount(int count) const {
  return WaitForEvents([&] { return Count() >= count; });
}

bool Recorder::WaitForLast(const Value& value) const {
  return WaitForEvents([&] {
    const Values carried = Carried();
    return !carried.empty() && carried.back() == value;
  });
}

void OnChange(platform_settings_node* node, void* recorder) { Take(node, recorder); }

void OnOtherChange(platform_settings_node* node, void* recorder) { Take(node, recorder); }

Subscription::Subscription(std::string key, platform_settings_changed_cb callback,
                           Recorder& recorder)
    : m_key(std::move(key)), m_callback(callback) {
  Needs("SET-17", platform_settings_subscribe(m_key.c_str(), callback, &recorder) == 0,
        "a subscription of " + m_key + " failed");
}

int Subscription::Cancel() {
  return std::exchange(m_isCancelled, true)
             ? 0
             : platform_settings_unsubscribe(m_key.c_str(), m_callback);
}

Values AllUntilNow(const std::string& key, const Recorder& recorder) {
  Write(key, LAST);
  recorder.WaitForLast(LAST);
  Settle();
  Values carried = recorder.Carried();
  if (!carried.empty() && carried.back() == LAST) {
    carried.pop_back();
  } else {
    carried.push_back(NOTHING);  // what came last is not what was written last
  }
  return carried;
}

void Carries(const std::string& done, const std::string& key, const Recorder& recorder,
             const Values& expected) {
  SameList(done + "; events of " + key, expected, AllUntilNow(key, recorder), ShowValue);
}

}  // namespace conformance
