#ifndef ONDARO_PLATFORM_HOST_SETTINGSSUBSCRIPTIONS_H
#define ONDARO_PLATFORM_HOST_SETTINGSSUBSCRIPTIONS_H

#include <glib.h>

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "SettingsArea.h"
#include "platform/SettingsStore.h"

namespace ondaro::host {

/// The subscriptions of this process, and the calls that they are for.
///
/// Each main context with subscriptions has one source, which watches the bells of the areas and
/// reads the logs at its own pace. A subscription stays with the context of the thread that made
/// it. One inotify descriptor serves all sources: whichever reads it first wakes the others, so no
/// context depends on another going round.
///
/// Any thread; one object a process, never destroyed. No lock is held during a callback. Lock
/// order: this object's, then an area's.
class SettingsSubscriptions {
 public:
  static constexpr std::size_t AREAS = 2;
  using Areas = std::array<SettingsArea*, AREAS>;

  explicit SettingsSubscriptions(const Areas& areas);
  SettingsSubscriptions(const SettingsSubscriptions&) = delete;
  SettingsSubscriptions& operator=(const SettingsSubscriptions&) = delete;

  /// `area` is the key's place in the areas given. Throws SettingsError.
  void Subscribe(std::size_t area, const std::string& key, platform_settings_changed_cb callback,
                 void* userData);

  /// False for a pair that is not subscribed. Waits for a call in another thread to end, unless
  /// that call waits in here itself.
  bool Unsubscribe(const std::string& key, platform_settings_changed_cb callback);

  void BeforeFork() { m_mutex.lock(); }
  void AfterForkInParent() { m_mutex.unlock(); }
  /// After the areas': what was subscribed stays so, watched by a descriptor of the child's own.
  void AfterForkInChild();

 private:
  struct Subscription {
    platform_settings_changed_cb callback;
    void* userData;
    std::int64_t from;  // of the changes, only those above
    bool isActive = true;
    bool isRunning = false;
    std::thread::id runner = {};
  };
  using Subscribed = std::vector<std::shared_ptr<Subscription>>;

  /// What one main context has subscribed and read.
  struct Listener {
    Listener(GMainContext* itsContext, GSource* itsSource)
        : context(itsContext), source(itsSource) {}
    ~Listener() { g_source_unref(source); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// False once the context is gone.
    bool IsAlive() const { return g_source_is_destroyed(source) == FALSE; }
    bool IsEmpty() const;

    GMainContext* const context;  // to be compared only
    GSource* const source;
    std::array<std::map<std::string, Subscribed>, AREAS> subscribed;
    std::array<std::int64_t, AREAS> positions = {};
  };
  using ListenerPointer = std::shared_ptr<Listener>;

  struct Found {
    ListenerPointer listener;
    std::size_t area;
    std::map<std::string, Subscribed>::iterator subscribed;
    std::size_t place;
  };

  static gboolean OnReady(GSource* source, GSourceFunc callback, gpointer data);
  gboolean Dispatch(GSource* source);
  void Drain(const GSource* reader);
  bool Deliver(Listener& listener, std::size_t area);
  std::vector<SettingsChange> Fetch(Listener& listener, std::size_t area);
  void DeliverChange(Listener& listener, std::size_t area, const SettingsChange& change);
  void Call(Subscription& subscription, const SettingsChange& change);

  // With the lock held.
  bool Find(const std::string& key, platform_settings_changed_cb callback, Found& found);
  std::shared_ptr<Subscription> Remove(const Found& found);
  ListenerPointer ListenerOfThread();
  void Watch(const std::string& path);
  void PublishPosition(std::size_t area);
  void RenewInotify();

  const Areas m_areas;
  std::mutex m_mutex;
  std::condition_variable m_callEnded;
  std::set<std::thread::id> m_unsubscribing;
  std::vector<ListenerPointer> m_listeners;
  std::vector<std::string> m_watched;
  std::array<bool, AREAS> m_mustFollow = {};  // in a child, before its first look
  int m_inotify = -1;
};

}  // namespace ondaro::host

#endif
