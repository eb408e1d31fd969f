#include "SettingsSubscriptions.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <exception>

#include "SettingsError.h"
#include "SettingsLimits.h"
#include "SettingsNode.h"

namespace ondaro::host {
namespace {

// Found through this and the source alone, since what a source carried would be reached without
// the lock by the thread that dispatches it.
std::atomic<SettingsSubscriptions*> g_subscriptions{nullptr};

// The closing of a writer that died between its commit and its ring counts as a ring.
constexpr std::uint32_t RINGS = IN_MODIFY | IN_CLOSE_WRITE;

/// The one place where a callback is called: nothing that it throws goes further.
void RunCallback(platform_settings_changed_cb callback, void* userData,
                 const SettingsChange& change) noexcept {
  try {
    platform_settings_node node{&change};
    callback(&node, userData);
  } catch (const std::exception& exception) {
    LogSettingsError("callback of " + change.key + " threw " + exception.what());
  } catch (...) {
    LogSettingsError("callback of " + change.key + " threw");
  }
}

}  // namespace

SettingsSubscriptions::SettingsSubscriptions(const Areas& areas) : m_areas(areas) {
  g_subscriptions.store(this);
}

bool SettingsSubscriptions::Listener::IsEmpty() const {
  return std::all_of(subscribed.begin(), subscribed.end(),
                     [](const auto& ofArea) { return ofArea.empty(); });
}

void SettingsSubscriptions::Subscribe(std::size_t area, const std::string& key,
                                      platform_settings_changed_cb callback, void* userData) {
  std::lock_guard lock(m_mutex);
  if (Found found; Find(key, callback, found)) {
    if (found.listener->IsAlive()) {
      found.subscribed->second[found.place]->userData = userData;
      return;
    }
    Remove(found);
  }
  // Watched first, so that no change falls between.
  Watch(m_areas[area]->BellPath());
  const std::int64_t from = m_areas[area]->Follow();
  const ListenerPointer listener = ListenerOfThread();
  if (listener->subscribed[area].empty()) {
    listener->positions[area] = from;
  }
  listener->subscribed[area][key].push_back(
      std::make_shared<Subscription>(Subscription{callback, userData, from}));
  PublishPosition(area);
}

bool SettingsSubscriptions::Unsubscribe(const std::string& key,
                                        platform_settings_changed_cb callback) {
  std::unique_lock lock(m_mutex);
  Found found;
  if (!Find(key, callback, found)) {
    return false;
  }
  const std::shared_ptr<Subscription> subscription = Remove(found);
  PublishPosition(found.area);
  // Not for a call that waits in here itself: for this thread's own, or for one that waits in turn.
  m_unsubscribing.insert(std::this_thread::get_id());
  m_callEnded.notify_all();
  m_callEnded.wait(lock, [&] {
    return !subscription->isRunning || m_unsubscribing.count(subscription->runner) != 0;
  });
  m_unsubscribing.erase(std::this_thread::get_id());
  return true;
}

bool SettingsSubscriptions::Find(const std::string& key, platform_settings_changed_cb callback,
                                 Found& found) {
  for (const ListenerPointer& listener : m_listeners) {
    for (std::size_t area = 0; area < AREAS; ++area) {
      const auto subscribed = listener->subscribed[area].find(key);
      if (subscribed == listener->subscribed[area].end()) {
        continue;
      }
      const Subscribed& list = subscribed->second;
      const auto match = std::find_if(list.begin(), list.end(), [&](const auto& subscription) {
        return subscription->callback == callback;
      });
      if (match != list.end()) {
        found = {listener, area, subscribed, static_cast<std::size_t>(match - list.begin())};
        return true;
      }
    }
  }
  return false;
}

/// Ends the source with the last subscription of its context.
std::shared_ptr<SettingsSubscriptions::Subscription> SettingsSubscriptions::Remove(
    const Found& found) {
  Subscribed& list = found.subscribed->second;
  const auto place = list.begin() + static_cast<std::ptrdiff_t>(found.place);
  std::shared_ptr<Subscription> subscription = *place;
  subscription->isActive = false;
  list.erase(place);
  if (list.empty()) {
    found.listener->subscribed[found.area].erase(found.subscribed);
  }
  if (found.listener->IsEmpty()) {
    g_source_destroy(found.listener->source);
    m_listeners.erase(std::find(m_listeners.begin(), m_listeners.end(), found.listener));
  }
  return subscription;
}

SettingsSubscriptions::ListenerPointer SettingsSubscriptions::ListenerOfThread() {
  static GSourceFuncs functions = {nullptr, nullptr, &OnReady, nullptr, nullptr, nullptr};
  GMainContext* context = g_main_context_ref_thread_default();
  const auto known = std::find_if(
      m_listeners.begin(), m_listeners.end(),
      [&](const auto& listener) { return listener->context == context && listener->IsAlive(); });
  ListenerPointer listener;
  if (known != m_listeners.end()) {
    listener = *known;
  } else {
    listener = std::make_shared<Listener>(context, g_source_new(&functions, sizeof(GSource)));
    m_listeners.push_back(listener);
    g_source_set_static_name(listener->source, "ondaro settings");
    g_source_add_unix_fd(listener->source, m_inotify, G_IO_IN);
    g_source_attach(listener->source, context);
  }
  g_main_context_unref(context);
  return listener;
}

void SettingsSubscriptions::Watch(const std::string& path) {
  if (m_inotify < 0) {
    m_inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_inotify < 0) {
      throw SystemFailure("inotify");
    }
  }
  if (std::find(m_watched.begin(), m_watched.end(), path) != m_watched.end()) {
    return;
  }
  if (inotify_add_watch(m_inotify, path.c_str(), RINGS) < 0) {
    throw SystemFailure("watch " + path);
  }
  m_watched.push_back(path);
}

/// The log is kept for the slowest context that can still read it.
void SettingsSubscriptions::PublishPosition(std::size_t area) {
  std::optional<std::int64_t> slowest;
  for (const ListenerPointer& listener : m_listeners) {
    if (listener->IsAlive() && !listener->subscribed[area].empty()) {
      const std::int64_t position = listener->positions[area];
      slowest = std::min(slowest.value_or(position), position);
    }
  }
  if (slowest) {
    m_areas[area]->Publish(*slowest);
  } else {
    m_areas[area]->Unfollow();
  }
}

gboolean SettingsSubscriptions::OnReady(GSource* source, GSourceFunc /*callback*/,
                                        gpointer /*data*/) {
  try {
    return g_subscriptions.load()->Dispatch(source);
  } catch (const std::exception& exception) {
    LogSettingsError(std::string("changes cannot be read: ") + exception.what());
    constexpr gint64 PAUSE = G_USEC_PER_SEC;
    g_source_set_ready_time(source, g_get_monotonic_time() + PAUSE);
    return G_SOURCE_CONTINUE;
  }
}

gboolean SettingsSubscriptions::Dispatch(GSource* source) {
  ListenerPointer listener;
  {
    std::lock_guard lock(m_mutex);
    const auto known = std::find_if(m_listeners.begin(), m_listeners.end(),
                                    [&](const auto& each) { return each->source == source; });
    if (known == m_listeners.end()) {
      return G_SOURCE_REMOVE;
    }
    listener = *known;
  }
  g_source_set_ready_time(source, -1);
  Drain(source);
  bool isMoreLeft = false;
  for (std::size_t area = 0; area < AREAS; ++area) {
    isMoreLeft = Deliver(*listener, area) || isMoreLeft;
  }
  if (isMoreLeft) {
    g_source_set_ready_time(source, 0);
  }
  return G_SOURCE_CONTINUE;
}

void SettingsSubscriptions::Drain(const GSource* reader) {
  alignas(inotify_event) char events[4096];
  if (read(m_inotify, events, sizeof events) <= 0) {
    return;
  }
  std::lock_guard lock(m_mutex);
  for (const ListenerPointer& listener : m_listeners) {
    if (listener->source != reader) {
      g_source_set_ready_time(listener->source, 0);
    }
  }
}

/// True when there may be more to deliver.
bool SettingsSubscriptions::Deliver(Listener& listener, std::size_t area) {
  const std::vector<SettingsChange> changes = Fetch(listener, area);
  for (const SettingsChange& change : changes) {
    DeliverChange(listener, area, change);
  }
  if (!changes.empty()) {
    std::lock_guard lock(m_mutex);
    PublishPosition(area);
  }
  return changes.size() >= SETTINGS_READ_BATCH;
}

std::vector<SettingsChange> SettingsSubscriptions::Fetch(Listener& listener, std::size_t area) {
  std::int64_t position = 0;
  {
    std::lock_guard lock(m_mutex);
    if (listener.subscribed[area].empty()) {
      return {};
    }
    if (m_mustFollow[area]) {
      m_areas[area]->Follow();
      PublishPosition(area);
      m_mustFollow[area] = false;
    }
    position = listener.positions[area];
  }
  if (auto changes = m_areas[area]->ChangesAfter(position)) {
    return std::move(*changes);
  }
  std::vector<std::string> keys;
  {
    std::lock_guard lock(m_mutex);
    for (const auto& [key, subscribed] : listener.subscribed[area]) {
      keys.push_back(key);
    }
  }
  return m_areas[area]->ChangesAfterGap(position, keys);
}

void SettingsSubscriptions::DeliverChange(Listener& listener, std::size_t area,
                                          const SettingsChange& change) {
  Subscribed subscribed;
  {
    std::lock_guard lock(m_mutex);
    listener.positions[area] = std::max(listener.positions[area], change.sequence);
    const auto ofKey = listener.subscribed[area].find(change.key);
    if (ofKey != listener.subscribed[area].end()) {
      subscribed = ofKey->second;
    }
  }
  for (const std::shared_ptr<Subscription>& subscription : subscribed) {
    Call(*subscription, change);
  }
}

void SettingsSubscriptions::Call(Subscription& subscription, const SettingsChange& change) {
  std::unique_lock lock(m_mutex);
  if (!subscription.isActive || change.sequence <= subscription.from) {
    return;
  }
  subscription.isRunning = true;
  subscription.runner = std::this_thread::get_id();
  const platform_settings_changed_cb callback = subscription.callback;
  void* const userData = subscription.userData;
  lock.unlock();
  RunCallback(callback, userData, change);
  lock.lock();
  subscription.isRunning = false;
  m_callEnded.notify_all();
}

void SettingsSubscriptions::AfterForkInChild() {
  for (const ListenerPointer& listener : m_listeners) {
    for (const auto& ofArea : listener->subscribed) {
      for (const auto& [key, subscribed] : ofArea) {
        for (const std::shared_ptr<Subscription>& subscription : subscribed) {
          // Of the threads, the child has only the one that forked.
          subscription->isRunning =
              subscription->isRunning && subscription->runner == std::this_thread::get_id();
        }
      }
    }
  }
  m_unsubscribing.clear();
  m_mustFollow.fill(true);
  if (m_inotify >= 0) {
    RenewInotify();
  }
  m_mutex.unlock();
}

void SettingsSubscriptions::RenewInotify() {
  // Under the same number, which the sources poll. The parent's own would be read by both.
  const int own = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  const bool isRenewed = own >= 0 && dup3(own, m_inotify, O_CLOEXEC) >= 0;
  if (!isRenewed) {
    LogSettingsError(SystemFailure("inotify in a child").what());
  }
  if (own >= 0) {
    close(own);
  }
  if (!isRenewed) {
    return;
  }
  for (const std::string& path : m_watched) {
    if (inotify_add_watch(m_inotify, path.c_str(), RINGS) < 0) {
      LogSettingsError(SystemFailure(path + ": inotify in a child").what());
    }
  }
  // What rang before this moment told the parent alone. The end of a watch wakes the sources too.
  inotify_rm_watch(m_inotify, inotify_add_watch(m_inotify, "/", IN_DELETE_SELF));
}

}  // namespace ondaro::host
