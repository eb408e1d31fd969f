#include "Recorder.h"

#include <glib.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>

#include "Judging.h"

namespace conformance {
namespace {

std::deque<Recorder>& Recorders() {
  static std::deque<Recorder> recorders;
  return recorders;
}

std::mutex& RecordersMutex() {
  static std::mutex mutex;
  return mutex;
}

std::atomic<std::size_t> g_strayCalls{0};

/// What comes back is looked at only once it is known to be what was given.
void Take(platform_settings_node* node, const void* userData) {
  Recorder* found = nullptr;
  {
    const std::lock_guard lock(RecordersMutex());
    for (Recorder& recorder : Recorders()) {
      found = &recorder == userData ? &recorder : found;
    }
  }
  if (found != nullptr) {
    found->Record(node);
  } else {
    ++g_strayCalls;
  }
}

bool WaitForEvents(const std::function<bool()>& haveCome) {
  const std::size_t strays = g_strayCalls;
  const bool ended = WaitFor([&] { return haveCome() || g_strayCalls != strays; });
  Needs("SET-18", g_strayCalls == strays, "a callback came with what nobody gave");
  return ended;
}

}  // namespace

std::size_t StrayCalls() { return g_strayCalls; }

void Recorder::Record(platform_settings_node* node) {
  const std::lock_guard lock(m_mutex);
  if (m_hook) {
    m_hook(node);
  }
  const char* const name = platform_settings_node_name(node);
  const char* const text = platform_settings_node_string(node);
  Event event;
  event.name = name != nullptr ? name : "";
  event.text = text != nullptr ? std::optional<std::string>(text) : std::nullopt;
  errno = 0;
  event.number = platform_settings_node_int(node);
  event.error = errno;
  m_events.push_back(event);
}

void Recorder::BeforeEach(Hook hook) {
  const std::lock_guard lock(m_mutex);
  m_hook = std::move(hook);
}

std::vector<Event> Recorder::Events() const {
  const std::lock_guard lock(m_mutex);
  return m_events;
}

int Recorder::CountOf(int number) const {
  const std::lock_guard lock(m_mutex);
  return static_cast<int>(std::count_if(m_events.begin(), m_events.end(), [&](const Event& event) {
    return event.number == number;
  }));
}

bool Recorder::WaitForCount(std::size_t count) const {
  return WaitForEvents([&] { return Events().size() >= count; });
}

bool Recorder::WaitForNumber(int number) const {
  return WaitForEvents([&] { return CountOf(number) != 0; });
}

Recorder& NewRecorder() {
  const std::lock_guard lock(RecordersMutex());
  return Recorders().emplace_back();
}

void OnChange(platform_settings_node* node, void* recorder) { Take(node, recorder); }

void OnOtherChange(platform_settings_node* node, void* recorder) { Take(node, recorder); }

void OnFenceChange(platform_settings_node* node, void* recorder) { Take(node, recorder); }

Subscription::Subscription(std::string key, platform_settings_changed_cb callback,
                           Recorder& recorder)
    : m_key(std::move(key)),
      m_callback(callback),
      m_status(platform_settings_subscribe(m_key.c_str(), callback, &recorder)) {}

Subscription::~Subscription() { Cancel(); }

int Subscription::Cancel() {
  if (m_isCancelled) {
    return 0;
  }
  m_isCancelled = true;
  return platform_settings_unsubscribe(m_key.c_str(), m_callback);
}

void Drain() {
  while (g_main_context_iteration(nullptr, FALSE) == TRUE) {
  }
}

}  // namespace conformance
