#include "Settings.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <iterator>
#include <memory>
#include <numeric>
#include <sstream>

namespace conformance {
namespace {

constexpr int KEPT = 33;  // an errno

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

void SameValues(const std::string& done, const Values& expected, const Values& came) {
  if (expected.size() == 1 && came.size() == 1) {
    Holds(expected == came, done, ShowValue(expected[0]), ShowValue(came[0]));
    return;
  }
  const auto differing =
      std::mismatch(expected.begin(), expected.end(), came.begin(), came.end()).first;
  const auto at = static_cast<std::size_t>(differing - expected.begin());
  const auto summary = [&](const Values& values) {
    constexpr std::size_t MOST = 6;
    std::string text = std::to_string(values.size());
    for (std::size_t i = 0; i < std::min(values.size(), MOST); ++i) {
      text += (i == 0 ? ": " : ", ") + ShowValue(values[i]);
    }
    return text + (values.size() > MOST ? ", ..." : "") + "\nnumber " + std::to_string(at + 1) +
           " is " + (at < values.size() ? ShowValue(values[at]) : "not there");
  };
  Holds(expected == came, done, summary(expected), summary(came));
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

Arguments Roots() {
  std::istringstream roots(IsDeclared("settings.roots") ? Declared("settings.roots")
                                                        : "db/conformance memory/conformance");
  return {std::istream_iterator<std::string>(roots), {}};
}

Arguments Keys(const std::string& name) {
  Arguments keys = Roots();
  for (std::string& key : keys) {
    key += "/" + name;
  }
  return keys;
}

std::string Key(const std::string& name) { return Keys(name).front(); }

int TryWrite(const std::string& key, const Value& value) {
  const std::string rest = value.substr(1);
  return value[0] == 't' ? platform_settings_set_string(key.c_str(), rest.c_str())
                         : platform_settings_set_int(key.c_str(), std::stoi(rest));
}

void Write(const std::string& key, const Value& value) {
  Needs(value[0] == 't' ? "SET-05" : "SET-08", TryWrite(key, value) == 0,
        "a write of " + ShowValue(value) + " to " + key + " failed");
}

char* ReadText(const std::string& key) {
  static std::deque<char*>& kept = *std::make_unique<std::deque<char*>>().release();
  static std::mutex& mutex = *std::make_unique<std::mutex>().release();
  char* const text = platform_settings_get_string(key.c_str());
  const std::lock_guard lock(mutex);
  return kept.emplace_back(text);
}

Value Read(const std::string& key) {
  if (const char* const text = ReadText(key)) {
    return Text(text);
  }
  int number = 0;
  return platform_settings_get_int(key.c_str(), &number) == 0 ? Number(number) : NOTHING;
}

Recorder& Recorder::New(const std::string& key, const Hook& hook) {
  const std::lock_guard lock(g_recordersMutex);
  return Recorders().emplace_back(key, hook);
}

void Recorder::Record(platform_settings_node* node) {
  if (m_hook) {
    m_hook(node);
  }
  Event event;
  const char* const name = platform_settings_node_name(node);
  event.name = name != nullptr ? name : FAILS;
  const char* const text = platform_settings_node_string(node);
  event.text = text != nullptr ? Show(text) : FAILS;
  errno = 0;
  const int number = platform_settings_node_int(node);
  const bool isNumber = errno == 0;
  errno = KEPT;
  platform_settings_node_int(node);
  event.integer = number == -1 && !isNumber   ? FAILS
                  : isNumber && errno == KEPT ? Show(number)
                                              : Show(number) + ", and errno is not left alone";
  event.value = text != nullptr ? Text(text) : isNumber ? Number(number) : NOTHING;
  event.thread = std::this_thread::get_id();
  const std::lock_guard lock(m_mutex);
  m_events.push_back(event);
}

std::vector<Event> Recorder::Events() const {
  const std::lock_guard lock(m_mutex);
  return m_events;
}

Values Recorder::Carried() const {
  Values carried;
  for (const Event& event : Events()) {
    carried.push_back(event.value);
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

void Subscribes(const std::string& done, Recorder& recorder,
                platform_settings_changed_cb callback) {
  Same(done + ": the status", 0,
       platform_settings_subscribe(recorder.Key().c_str(), callback, &recorder));
}

Subscription::Subscription(Recorder& recorder, platform_settings_changed_cb callback)
    : m_recorder(recorder), m_callback(callback) {
  const std::string& key = recorder.Key();
  Needs("SET-17", platform_settings_subscribe(key.c_str(), callback, &recorder) == 0,
        "a subscription of " + key + " failed");
}

int Subscription::Cancel() {
  return std::exchange(m_isCancelled, true)
             ? 0
             : platform_settings_unsubscribe(m_recorder.Key().c_str(), m_callback);
}

Values AllUntilNow(const Recorder& recorder) {
  Write(recorder.Key(), LAST);
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

void Carries(const std::string& done, const Recorder& recorder, const Values& expected) {
  SameValues(done + "; events of " + recorder.Key(), expected, AllUntilNow(recorder));
}

Helper Writing(const std::string& key, Values values) {
  values.insert(values.begin(), key);
  return Helper("write", values);
}

void WriteElsewhere(const std::string& key, const Values& values) {
  Writing(key, values).Reply("another process wrote " + key);
}

}  // namespace conformance
