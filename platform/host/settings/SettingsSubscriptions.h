#ifndef ONDARO_PLATFORM_HOST_SETTINGSSUBSCRIPTIONS_H
#define ONDARO_PLATFORM_HOST_SETTINGSSUBSCRIPTIONS_H

#include <glib.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>
#include <vector>

#include "SharedSettings.h"
#include "platform/SettingsStore.h"

/// The seam's opaque node: a change, for as long as its callback runs.
struct platform_settings_node {
  const ondaro::host::SettingsChange* change;
};

namespace ondaro::host {

/// The subscriptions of this process, and the calls that they are for.
///
/// Each main context with subscriptions has a source of its own, which watches the bell and reads
/// the log at its own pace. It belongs to the context alone and is only touched by the thread that
/// dispatches it: a context that ends takes its subscriptions along. A subscription stays with the
/// context of the thread that made it.
///
/// Any thread; one object a process, never destroyed. No lock is held during a callback. Lock
/// order: the settings', then this object's.
class SettingsSubscriptions {
 public:
  explicit SettingsSubscriptions(SharedSettings& settings) : m_settings(settings) {}
  SettingsSubscriptions(const SettingsSubscriptions&) = delete;
  SettingsSubscriptions& operator=(const SettingsSubscriptions&) = delete;

  /// Throws std::exception.
  void Subscribe(const std::string& key, platform_settings_changed_cb callback, void* userData);

  /// False for a pair that is not subscribed. Waits for a call in another thread to end, unless
  /// that call waits in here itself.
  bool Unsubscribe(const std::string& key, platform_settings_changed_cb callback);

  void BeforeFork() { m_mutex.lock(); }
  void AfterForkInParent() { m_mutex.unlock(); }
  /// What was subscribed stays so, watched by descriptors of the child's own.
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
    Listener(SettingsSubscriptions& itsOwner, GMainContext* itsContext);

    void Watch() const;
    /// Has the source dispatched. From any thread, since it takes the kernel alone.
    void Wake() const;

    SettingsSubscriptions& owner;
    GMainContext* const context;  // to be compared only
    const Descriptor inotify;
    std::unordered_map<std::string, Subscribed> subscribed;
    SharedSettings::Position position;
    bool hasFailed = false;
  };
  using ListenerPointer = std::shared_ptr<Listener>;

  struct Source {
    GSource base;
    ListenerPointer* listener;
  };

  static gboolean OnReady(GSource* source, GSourceFunc callback, gpointer data);
  static void OnEnd(GSource* source);
  /// True when there is more to deliver; none when the source is not needed any more.
  std::optional<bool> Dispatch(const ListenerPointer& listener);
  bool Deliver(Listener& listener);
  void Call(Subscription& subscription, const SettingsChange& change);

  // With the lock held.
  ListenerPointer ListenerOfThread();
  std::shared_ptr<Subscription> Find(const std::string& key, platform_settings_changed_cb callback,
                                     bool isToBeRemoved);

  SharedSettings& m_settings;
  std::mutex m_mutex;
  std::condition_variable m_callEnded;
  std::set<std::thread::id> m_unsubscribing;
  std::vector<ListenerPointer> m_listeners;
};

}  // namespace ondaro::host

#endif
