#include "SettingsSubscriptions.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

namespace ondaro::host {
namespace {

// A writer that died between its commit and its ring has closed the bell.
constexpr std::uint32_t RINGS = IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB;

int NewInotify() {
  const StandardStreamsHeld held;
  const int inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotify < 0) {
    throw std::system_error(errno, std::generic_category(), "inotify");
  }
  return inotify;
}

/// The one place where a callback is called: nothing that it throws goes further, but the end of
/// the thread does, which has no object that the reference of its handler could be bound to.
__attribute__((noinline, no_sanitize("null"))) void RunCallback(
    platform_settings_changed_cb callback, void* userData, const SettingsChange& change) {
  try {
    platform_settings_node node{&change};
    callback(&node, userData);
  } catch (const std::exception& exception) {
    platform_log_print(LOG_MAIN_BUFFER, LOG_PRIORITY_ERROR, LOG_TAG,
                       "settings: callback of %s threw %s", change.key.c_str(), exception.what());
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {
    platform_log_print(LOG_MAIN_BUFFER, LOG_PRIORITY_ERROR, LOG_TAG,
                       "settings: callback of %s threw", change.key.c_str());
  }
}

}  // namespace

SettingsSubscriptions::Listener::Listener(SettingsSubscriptions& itsOwner, GMainContext* itsContext)
    : owner(itsOwner), context(itsContext), inotify(NewInotify()) {
  Watch();
}

void SettingsSubscriptions::Listener::Watch() const {
  const std::string path = owner.m_settings.BellPath();
  if (inotify_add_watch(inotify.Number(), path.c_str(), RINGS) < 0) {
    throw std::system_error(errno, std::generic_category(), "watch " + path);
  }
}

void SettingsSubscriptions::Listener::Wake() const {
  // The end of a watch is an event, too.
  const int watch = inotify_add_watch(inotify.Number(), "/", IN_DELETE_SELF);
  inotify_rm_watch(inotify.Number(), watch);
}

void SettingsSubscriptions::Subscribe(const std::string& key, platform_settings_changed_cb callback,
                                      void* userData) {
  SharedSettings::Position from = m_settings.Last();  // makes what is watched
  ListenerPointer listener;
  for (bool isWatched = false;; isWatched = true) {
    {
      std::lock_guard lock(m_mutex);
      if (const auto known = Find(key, callback, false)) {
        known->userData = userData;
        return;
      }
      const ListenerPointer watching = ListenerOfThread();
      if (isWatched && watching == listener) {
        listener->position = listener->subscribed.empty() ? from : listener->position;
        listener->subscribed[key].push_back(
            std::make_shared<Subscription>(Subscription{callback, userData, from.number}));
        return;
      }
      listener = watching;
    }
    // Watched first, so that no change falls between.
    from = m_settings.Last();
  }
}

bool SettingsSubscriptions::Unsubscribe(const std::string& key,
                                        platform_settings_changed_cb callback) {
  std::unique_lock lock(m_mutex);
  const std::shared_ptr<Subscription> subscription = Find(key, callback, true);
  if (subscription == nullptr) {
    return false;
  }
  subscription->isActive = false;
  // Not for a call that waits in here itself: for this thread's own, or for one that waits in turn.
  m_unsubscribing.insert(std::this_thread::get_id());
  m_callEnded.notify_all();
  m_callEnded.wait(lock, [&] {
    return !subscription->isRunning || m_unsubscribing.count(subscription->runner) != 0;
  });
  m_unsubscribing.erase(std::this_thread::get_id());
  return true;
}

std::shared_ptr<SettingsSubscriptions::Subscription> SettingsSubscriptions::Find(
    const std::string& key, platform_settings_changed_cb callback, bool isToBeRemoved) {
  for (const ListenerPointer& listener : m_listeners) {
    const auto ofKey = listener->subscribed.find(key);
    if (ofKey == listener->subscribed.end()) {
      continue;
    }
    Subscribed& list = ofKey->second;
    const auto match = std::find_if(list.begin(), list.end(), [&](const auto& subscription) {
      return subscription->callback == callback;
    });
    if (match == list.end()) {
      continue;
    }
    std::shared_ptr<Subscription> found = *match;
    if (isToBeRemoved) {
      list.erase(match);
      if (list.empty()) {
        listener->subscribed.erase(ofKey);
      }
      if (listener->subscribed.empty()) {
        listener->Wake();
      }
    }
    return found;
  }
  return nullptr;
}

SettingsSubscriptions::ListenerPointer SettingsSubscriptions::ListenerOfThread() {
  static GSourceFuncs functions = {nullptr, nullptr, &OnReady, &OnEnd, nullptr, nullptr};
  const std::unique_ptr<GMainContext, decltype(&g_main_context_unref)> context(
      g_main_context_ref_thread_default(), &g_main_context_unref);
  for (const ListenerPointer& listener : m_listeners) {
    if (listener->context == context.get()) {
      return listener;
    }
  }
  auto listener = std::make_shared<Listener>(*this, context.get());
  m_listeners.push_back(listener);
  GSource* const source = g_source_new(&functions, sizeof(Source));
  reinterpret_cast<Source*>(source)->listener = new ListenerPointer(listener);
  g_source_set_name(source, "ondaro settings");
  g_source_add_unix_fd(source, listener->inotify.Number(), G_IO_IN);
  g_source_set_ready_time(source, 0);
  g_source_attach(source, context.get());
  g_source_unref(source);
  return listener;
}

gboolean SettingsSubscriptions::OnReady(GSource* source, GSourceFunc /*callback*/,
                                        gpointer /*data*/) {
  // The files may be replaced without an event of the bell.
  constexpr gint64 LOOK_EVERY = G_USEC_PER_SEC / 2;
  const ListenerPointer listener = *reinterpret_cast<Source*>(source)->listener;
  const std::optional<bool> hasMore = listener->owner.Dispatch(listener);
  g_source_set_ready_time(source,
                          hasMore.value_or(false) ? 0 : g_get_monotonic_time() + LOOK_EVERY);
  return hasMore ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

/// With the source, whether that was removed or its context has ended.
void SettingsSubscriptions::OnEnd(GSource* source) {
  const std::unique_ptr<ListenerPointer> ended(reinterpret_cast<Source*>(source)->listener);
  SettingsSubscriptions& owner = (*ended)->owner;
  std::lock_guard lock(owner.m_mutex);
  const auto place = std::find(owner.m_listeners.begin(), owner.m_listeners.end(), *ended);
  if (place != owner.m_listeners.end()) {
    owner.m_listeners.erase(place);
  }
}

std::optional<bool> SettingsSubscriptions::Dispatch(const ListenerPointer& listener) {
  alignas(inotify_event) char events[4096];
  const bool hasRung = read(listener->inotify.Number(), events, sizeof events) > 0;
  {
    std::lock_guard lock(m_mutex);
    if (listener->subscribed.empty()) {
      m_listeners.erase(std::find(m_listeners.begin(), m_listeners.end(), listener));
      return std::nullopt;
    }
  }
  try {
    const bool hasMore = Deliver(*listener);
    if (!hasRung) {
      listener->Watch();  // the bell may be another file
    }
    listener->hasFailed = false;
    return hasMore;
  } catch (const std::exception& exception) {
    if (!std::exchange(listener->hasFailed, true)) {
      LogSettingsError(std::string("changes cannot be read: ") + exception.what());
    }
    return false;
  }
}

bool SettingsSubscriptions::Deliver(Listener& listener) {
  std::unique_lock lock(m_mutex);
  SharedSettings::Position position = listener.position;
  lock.unlock();
  const auto isWanted = [&](const std::string& key) {
    const std::lock_guard looking(m_mutex);
    return listener.subscribed.count(key) != 0;
  };
  const auto keys = [&] {
    const std::lock_guard looking(m_mutex);
    std::vector<std::string> all;
    for (const auto& [key, subscribed] : listener.subscribed) {
      all.push_back(key);
    }
    return all;
  };
  std::vector<SettingsChange> changes;
  const bool hasMore = m_settings.ChangesAfter(position, isWanted, keys, changes);
  lock.lock();
  if (position.database != listener.position.database) {
    for (auto& [key, subscribed] : listener.subscribed) {
      for (const std::shared_ptr<Subscription>& subscription : subscribed) {
        subscription->from = -1;  // was a number of another database
      }
    }
  }
  listener.position = position;
  for (const SettingsChange& change : changes) {
    const auto ofKey = listener.subscribed.find(change.key);
    const Subscribed subscribed = ofKey != listener.subscribed.end() ? ofKey->second : Subscribed();
    lock.unlock();
    for (const std::shared_ptr<Subscription>& subscription : subscribed) {
      Call(*subscription, change);
    }
    lock.lock();
  }
  return hasMore;
}

void SettingsSubscriptions::Call(Subscription& subscription, const SettingsChange& change) {
  std::unique_lock lock(m_mutex);
  if (!subscription.isActive || change.number <= subscription.from) {
    return;
  }
  subscription.isRunning = true;
  subscription.runner = std::this_thread::get_id();
  const platform_settings_changed_cb callback = subscription.callback;
  void* const userData = subscription.userData;
  lock.unlock();
  // Also when the callback ends its thread.
  const auto end = [&](const void*) {
    lock.lock();
    subscription.isRunning = false;
    m_callEnded.notify_all();
  };
  const std::unique_ptr<const void, decltype(end)> running(&subscription, end);
  RunCallback(callback, userData, change);
}

void SettingsSubscriptions::AfterForkInChild() {
  m_unsubscribing.clear();
  for (const ListenerPointer& listener : m_listeners) {
    for (const auto& [key, subscribed] : listener->subscribed) {
      for (const std::shared_ptr<Subscription>& subscription : subscribed) {
        // Of the threads, the child has only the one that forked.
        subscription->isRunning =
            subscription->isRunning && subscription->runner == std::this_thread::get_id();
      }
    }
    try {
      // Under the same number, which the source polls. The parent's own would be read by both.
      const Descriptor own(NewInotify());
      dup3(own.Number(), listener->inotify.Number(), O_CLOEXEC);
      listener->Watch();
      // What rang before this moment told the parent alone.
      listener->Wake();
    } catch (const std::exception& exception) {
      LogSettingsError(std::string("in a child: ") + exception.what());
    }
  }
  m_mutex.unlock();
}

}  // namespace ondaro::host
