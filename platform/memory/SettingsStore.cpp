// The settings of this process alone, for as long as it lives. A change calls back on the GLib
// main context that was the default of the thread that subscribed, after the write has returned.
#include "platform/SettingsStore.h"

#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <variant>

using Value = std::variant<std::string, int>;

struct platform_settings_node {
  std::string key;
  Value value;
};

namespace {

struct Subscription {
  std::string key;
  platform_settings_changed_cb callback;
  void* userData;
  std::uint64_t id;  // of this subscription, not of a later one of the same pair
  std::shared_ptr<GMainContext> context;
};

struct Store {
  std::mutex mutex;
  std::map<std::string, Value> values;
  std::list<Subscription> subscriptions;
  std::uint64_t lastId = 0;
};

/// Never destroyed: main contexts may deliver until the process ends.
Store& TheStore() {
  static Store& store = *std::make_unique<Store>().release();
  return store;
}

struct Delivery {
  platform_settings_node node;
  std::uint64_t subscription;
};

gboolean Deliver(gpointer data) {
  auto& delivery = *static_cast<Delivery*>(data);
  Store& store = TheStore();
  platform_settings_changed_cb callback = nullptr;
  void* userData = nullptr;
  {
    const std::lock_guard lock(store.mutex);
    for (const Subscription& subscription : store.subscriptions) {
      if (subscription.id == delivery.subscription) {
        callback = subscription.callback;
        userData = subscription.userData;
      }
    }
  }
  if (callback != nullptr) {
    callback(&delivery.node, userData);
  }
  return G_SOURCE_REMOVE;
}

void EndDelivery(gpointer data) { delete static_cast<Delivery*>(data); }

void Queue(const Subscription& subscription, const Value& value) {
  GSource* const source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  auto delivery = std::make_unique<Delivery>(Delivery{{subscription.key, value}, subscription.id});
  g_source_set_callback(source, Deliver, delivery.release(), EndDelivery);
  g_source_attach(source, subscription.context.get());
  g_source_unref(source);
}

int Write(const char* key, Value value) {
  if (key == nullptr) {
    return -1;
  }
  Store& store = TheStore();
  const std::lock_guard lock(store.mutex);
  for (const Subscription& subscription : store.subscriptions) {
    if (subscription.key == key) {
      Queue(subscription, value);
    }
  }
  store.values[key] = std::move(value);
  return 0;
}

template <typename Type, typename Use>
bool Read(const char* key, Use use) {
  if (key == nullptr) {
    return false;
  }
  Store& store = TheStore();
  const std::lock_guard lock(store.mutex);
  const auto found = store.values.find(key);
  const Type* const value =
      found != store.values.end() ? std::get_if<Type>(&found->second) : nullptr;
  if (value != nullptr) {
    use(*value);
  }
  return value != nullptr;
}

/// With the lock held.
std::list<Subscription>::iterator Find(const char* key, platform_settings_changed_cb callback) {
  std::list<Subscription>& all = TheStore().subscriptions;
  return std::find_if(all.begin(), all.end(), [&](const Subscription& subscription) {
    return subscription.key == key && subscription.callback == callback;
  });
}

}  // namespace

char* platform_settings_get_string(const char* key) {
  char* text = nullptr;
  Read<std::string>(key, [&](const std::string& value) { text = strdup(value.c_str()); });
  return text;
}

int platform_settings_set_string(const char* key, const char* value) {
  return value != nullptr ? Write(key, std::string(value)) : -1;
}

int platform_settings_get_int(const char* key, int* value) {
  return Read<int>(key, [&](int stored) { *value = stored; }) ? 0 : -1;
}

int platform_settings_set_int(const char* key, int value) { return Write(key, value); }

int platform_settings_get_bool(const char* key, int* value) {
  return platform_settings_get_int(key, value);
}

int platform_settings_set_bool(const char* key, int value) {
  return platform_settings_set_int(key, value);
}

const char* platform_settings_node_name(platform_settings_node* node) { return node->key.c_str(); }

const char* platform_settings_node_string(platform_settings_node* node) {
  const std::string* const text = std::get_if<std::string>(&node->value);
  return text != nullptr ? text->c_str() : nullptr;
}

int platform_settings_node_int(platform_settings_node* node) {
  if (const int* const number = std::get_if<int>(&node->value)) {
    return *number;
  }
  errno = EINVAL;
  return -1;
}

int platform_settings_subscribe(const char* key, platform_settings_changed_cb callback,
                                void* user_data) {
  if (key == nullptr || callback == nullptr) {
    return -1;
  }
  Store& store = TheStore();
  const std::lock_guard lock(store.mutex);
  if (const auto found = Find(key, callback); found != store.subscriptions.end()) {
    found->userData = user_data;
    return 0;
  }
  store.subscriptions.push_back({key,
                                 callback,
                                 user_data,
                                 ++store.lastId,
                                 {g_main_context_ref_thread_default(), g_main_context_unref}});
  return 0;
}

int platform_settings_unsubscribe(const char* key, platform_settings_changed_cb callback) {
  if (key == nullptr) {
    return -1;
  }
  Store& store = TheStore();
  const std::lock_guard lock(store.mutex);
  const auto found = Find(key, callback);
  if (found == store.subscriptions.end()) {
    return -1;
  }
  store.subscriptions.erase(found);
  return 0;
}
