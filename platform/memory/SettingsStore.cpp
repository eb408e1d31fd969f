// The settings of the processes that name one directory in ONDARO_MEMORY_SET, or of this process
// alone. A change calls back on the GLib main context that was the default of the thread that
// subscribed; it looks there, some times a second, for what other processes wrote.
#include "platform/SettingsStore.h"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Fault.h"
#include "Journal.h"

using ondaro::memory::Has;
using ondaro::memory::Journal;
using ondaro::memory::Value;

struct platform_settings_node {
  std::string key;
  Value value;
};

namespace {

constexpr guint LOOK_INTERVAL_MS = 20;
constexpr char MEMORY_ROOT[] = "memory/";

struct Subscription {
  std::string key;
  platform_settings_changed_cb callback;
  void* userData;
  std::uint64_t id;  // of this subscription, not of a later one of the same pair
  std::shared_ptr<GMainContext> context;
  std::shared_ptr<GSource> looking;
};

std::string FileOf(const char* name) {
  const char* const directory = std::getenv("ONDARO_MEMORY_SET");
  return directory != nullptr ? std::string(directory) + "/" + name : "";
}

struct Store {
  std::mutex mutex;
  Journal db{FileOf(Has("db-lost") ? "memory" : "db")};
  Journal memory{FileOf(Has("memory-kept") ? "db-too" : "memory")};
  std::map<std::string, Value> values;
  std::list<Subscription> subscriptions;
  std::uint64_t lastId = 0;
};

/// Never destroyed: main contexts may deliver until the process ends.
Store& TheStore() {
  static Store& store = *std::make_unique<Store>().release();
  return store;
}

// ---- Delivery

struct Delivery {
  platform_settings_node node;
  Subscription to;
};

gboolean Deliver(gpointer data) {
  auto& delivery = *static_cast<Delivery*>(data);
  Store& store = TheStore();
  bool isSubscribed = Has("called-after-end");
  {
    const std::lock_guard lock(store.mutex);
    for (const Subscription& subscription : store.subscriptions) {
      if (subscription.id == delivery.to.id) {
        isSubscribed = true;
        delivery.to.userData = subscription.userData;
      }
    }
    if (Has("value-at-delivery")) {
      delivery.node.value = store.values[delivery.node.key];
    }
  }
  std::unique_lock held(store.mutex, std::defer_lock);
  if (Has("lock-during-callback")) {
    held.lock();
  }
  if (isSubscribed) {
    delivery.to.callback(&delivery.node, Has("wrong-user-data") ? &store : delivery.to.userData);
  }
  return G_SOURCE_REMOVE;
}

void EndDelivery(gpointer data) { delete static_cast<Delivery*>(data); }

void Queue(const Subscription& subscription, const std::string& key, const Value& value) {
  GSource* const source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  auto delivery = std::make_unique<Delivery>(Delivery{{key, value}, subscription});
  g_source_set_callback(source, Deliver, delivery.release(), EndDelivery);
  g_source_attach(source, Has("default-context") ? nullptr : subscription.context.get());
  g_source_unref(source);
}

bool IsFor(const Subscription& subscription, const std::string& key) {
  return Has("prefix-is-key") ? key.rfind(subscription.key, 0) == 0 : subscription.key == key;
}

/// What was written since the last look. With the lock held.
void Look() {
  Store& store = TheStore();
  std::vector<std::pair<std::string, Value>> news;
  const auto take = [&](const std::string& key, const Value& value) {
    news.emplace_back(key, value);
  };
  store.db.ReadOn(take);
  store.memory.ReadOn(take);
  if (Has("reordered")) {
    std::reverse(news.begin(), news.end());
  }
  if (Has("coalesced") && news.size() > 1) {
    news.erase(news.begin(), news.end() - 1);
  }
  for (const auto& [key, value] : news) {
    const bool isSilent = Has("first-write-silent") && store.values.count(key) == 0;
    for (const Subscription& subscription : store.subscriptions) {
      for (int i = Has("twice") ? 2 : 1; IsFor(subscription, key) && !isSilent && i > 0; --i) {
        Queue(subscription, key, value);
      }
    }
    store.values[key] = value;
  }
}

gboolean LookAgain(gpointer /*unused*/) {
  const std::lock_guard lock(TheStore().mutex);
  if (!Has("others-unseen")) {
    Look();
  }
  return G_SOURCE_CONTINUE;
}

// ---- Reads and writes

/// As a store might have it that means well.
Value Spoilt(Value value) {
  if (auto* const text = std::get_if<std::string>(&value)) {
    if (Has("cut-at-4-kib")) {
      text->resize(std::min<std::size_t>(text->size(), 4095));
    }
    if (Has("cut-at-64-kib")) {
      text->resize(std::min<std::size_t>(text->size(), 65535));
    }
    if (Has("stripped")) {
      text->erase(text->find_last_not_of(" \n") + 1);
    }
    if (Has("ascii-only")) {
      std::replace_if(
          text->begin(), text->end(), [](char c) { return c < 0; }, '?');
    }
  }
  return value;
}

bool Append(const std::string& key, const Value& value) {
  Store& store = TheStore();
  return (key.rfind(MEMORY_ROOT, 0) == 0 ? store.memory : store.db).Append(key, value);
}

/// Kept back until the process ends.
void AppendAtExit(const std::string& key, const Value& value) {
  static std::vector<std::pair<std::string, Value>>& late =
      *std::make_unique<std::vector<std::pair<std::string, Value>>>().release();
  if (late.empty()) {
    std::atexit([] {
      for (const auto& [lateKey, lateValue] : late) {
        Append(lateKey, lateValue);
      }
    });
  }
  late.emplace_back(key, value);
  TheStore().values[key] = value;
}

int Write(const char* key, const Value& value) {
  if (key == nullptr) {
    return -1;
  }
  Store& store = TheStore();
  bool isWritten = true;
  {
    const std::lock_guard lock(store.mutex);
    Look();
    const auto known = store.values.find(key);
    const bool isKnown = known != store.values.end();
    if (isKnown && (Has("lost-write") || (Has("same-dropped") && known->second == value))) {
      return 0;
    }
    if (Has("emptied-first")) {
      Append(key, std::string());
      g_usleep(500);
    }
    if (Has("written-at-exit")) {
      AppendAtExit(key, value);
      return 0;
    }
    isWritten = Append(key, Spoilt(value));
    Look();
  }
  while (Has("within-the-write") && g_main_context_iteration(nullptr, FALSE) == TRUE) {
  }
  return isWritten ? 0 : -1;
}

template <typename Use>
void Read(const char* key, Use use) {
  if (key == nullptr) {
    return;
  }
  Store& store = TheStore();
  const std::lock_guard lock(store.mutex);
  if (!Has("old-copy") || store.values.count(key) == 0) {
    Look();
  }
  const auto found = store.values.find(key);
  if (found != store.values.end()) {
    use(found->second);
  }
}

/// By a fault: what a number is as a text, and a text as a number.
char g_text[32];

const char* TextOf(const Value& value, const char* fault) {
  if (const auto* const text = std::get_if<std::string>(&value)) {
    return text->c_str();
  }
  g_snprintf(g_text, sizeof g_text, "%d", std::get<int>(value));
  return Has(fault) ? g_text : nullptr;
}

const int* NumberOf(const Value& value, const char* fault) {
  static int number;
  if (const auto* const text = std::get_if<std::string>(&value)) {
    number = std::atoi(text->c_str());
    return Has(fault) && number != 0 ? &number : nullptr;
  }
  return std::get_if<int>(&value);
}

/// With the lock held.
std::list<Subscription>::iterator Find(const char* key, platform_settings_changed_cb callback) {
  std::list<Subscription>& all = TheStore().subscriptions;
  return std::find_if(all.begin(), all.end(), [&](const Subscription& subscription) {
    return subscription.key == key && (subscription.callback == callback || Has("key-alone"));
  });
}

std::shared_ptr<GSource> LookRegularly(GMainContext* context) {
  GSource* const source = g_timeout_source_new(LOOK_INTERVAL_MS);
  g_source_set_callback(source, LookAgain, nullptr, nullptr);
  g_source_attach(source, context);
  return {source, [](GSource* ended) {
            g_source_destroy(ended);
            g_source_unref(ended);
          }};
}

}  // namespace

char* platform_settings_get_string(const char* key) {
  static char shared[128 * 1024];
  char* text = nullptr;
  Read(key, [&](const Value& value) {
    const char* const found = TextOf(value, "text-of-integer");
    if (found != nullptr && Has("one-buffer")) {
      g_strlcpy(shared, found, sizeof shared);
      text = shared;
    } else if (found != nullptr) {
      text = strdup(found);
    }
  });
  if (Has("leaked-text")) {
    static_cast<void>(std::make_unique<std::string>("what nobody will ever release").release());
  }
  return text;
}

int platform_settings_set_string(const char* key, const char* value) {
  return value != nullptr ? Write(key, std::string(value)) : -1;
}

int platform_settings_get_int(const char* key, int* value) {
  const int* number = nullptr;
  Read(key, [&](const Value& stored) { number = NumberOf(stored, "integer-of-text"); });
  if (number != nullptr || Has("touched-value")) {
    *value = number != nullptr ? *number : 0;
  }
  return number != nullptr ? 0 : -1;
}

int platform_settings_set_int(const char* key, int value) { return Write(key, value); }

int platform_settings_get_bool(const char* key, int* value) {
  if (Has("crashing-boolean")) {
    std::abort();
  }
  return platform_settings_get_int(key, value);
}

int platform_settings_set_bool(const char* key, int value) {
  return platform_settings_set_int(key, Has("two-booleans") ? static_cast<int>(value != 0) : value);
}

const char* platform_settings_node_name(platform_settings_node* node) {
  return Has("last-segment") ? node->key.c_str() + node->key.rfind('/') + 1 : node->key.c_str();
}

const char* platform_settings_node_string(platform_settings_node* node) {
  static std::string kept;
  if (Has("moving-node")) {
    kept.assign(kept.size() + 100, '?');
    node->value = std::string(std::get_if<std::string>(&node->value) != nullptr ? kept : "");
  }
  return TextOf(node->value, "node-text-of-integer");
}

int platform_settings_node_int(platform_settings_node* node) {
  const int* const number = NumberOf(node->value, "node-integer-of-text");
  if (number == nullptr ? !Has("errno-unset") : Has("errno-touched")) {
    errno = EINVAL;
  }
  return number != nullptr ? *number : -1;
}

int platform_settings_subscribe(const char* key, platform_settings_changed_cb callback,
                                void* user_data) {
  if (key == nullptr || callback == nullptr) {
    return -1;
  }
  Store& store = TheStore();
  const std::lock_guard lock(store.mutex);
  Look();
  if (const auto found = Find(key, callback); found != store.subscriptions.end()) {
    if (!Has("old-user-data")) {
      found->userData = user_data;
    }
    return 0;
  }
  if ((Has("eight-at-most") && store.subscriptions.size() == 8) ||
      (Has("missing-refused") && store.values.count(key) == 0)) {
    return -1;
  }
  if (Has("leaked-descriptor")) {
    static_cast<void>(dup(STDOUT_FILENO));
  }
  GMainContext* const context = g_main_context_ref_thread_default();
  store.subscriptions.push_back({key,
                                 callback,
                                 user_data,
                                 ++store.lastId,
                                 {context, g_main_context_unref},
                                 LookRegularly(context)});
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
    return Has("end-of-nothing") ? 0 : -1;
  }
  store.subscriptions.erase(found);
  return 0;
}
