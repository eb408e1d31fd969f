/// The seam's settings store on SQLite: checks the keys, picks the area, and ends every exception.
///
///   SettingsArea            the keys of one lifetime, with cache and recovery
///     SettingsDatabase      values and change log of an area
///     SettingsBell          tells the processes of commits
///   SettingsSubscriptions   reads the logs and calls back
///
/// The store lives in two directories (StateDirectory.h) and is to be changed through this
/// interface only: what another program writes into the database rings no bell.
#include "platform/SettingsStore.h"

#include <pthread.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <utility>

#include "SettingsArea.h"
#include "SettingsError.h"
#include "SettingsKey.h"
#include "SettingsNode.h"
#include "SettingsSubscriptions.h"
#include "StateDirectory.h"

namespace ondaro::host {
namespace {

using Durability = SettingsDatabase::Durability;

constexpr int FAILURE = -1;

class Store {
 public:
  /// Made by the first call and never destroyed: other libraries call until the process has ended.
  static Store& Instance() {
    static auto* const store = new Store;
    return *store;
  }

  /// A fork waits for a first call under way in another thread: its child would find the store
  /// half made, with nobody left to finish it. So the handlers are there before any call.
  static int FollowForks() {
    return pthread_atfork([] { Instance().BeforeFork(); }, [] { Instance().AfterForkInParent(); },
                          [] { Instance().AfterForkInChild(); });
  }

  SettingsArea& AreaOf(std::string_view key) { return *m_areas[PlaceOf(key)]; }

  void Subscribe(const std::string& key, platform_settings_changed_cb callback, void* userData) {
    m_subscriptions.Subscribe(PlaceOf(key), key, callback, userData);
  }
  bool Unsubscribe(const std::string& key, platform_settings_changed_cb callback) {
    return m_subscriptions.Unsubscribe(key, callback);
  }

 private:
  static std::size_t PlaceOf(std::string_view key) { return LivesUntilReboot(key) ? 1 : 0; }

  void BeforeFork() {
    m_subscriptions.BeforeFork();
    m_kept.BeforeFork();
    m_memory.BeforeFork();
  }
  void AfterForkInParent() {
    m_memory.AfterForkInParent();
    m_kept.AfterForkInParent();
    m_subscriptions.AfterForkInParent();
  }
  void AfterForkInChild() {
    m_memory.AfterForkInChild();
    m_kept.AfterForkInChild();
    m_subscriptions.AfterForkInChild();
  }

  SettingsArea m_kept{&StateDirectory, "settings", Durability::SYNCED};
  SettingsArea m_memory{&RuntimeDirectory, "memory", Durability::UNSYNCED};
  const SettingsSubscriptions::Areas m_areas = {&m_kept, &m_memory};
  SettingsSubscriptions m_subscriptions{m_areas};
};

[[maybe_unused]] const int g_forksFollowed = Store::FollowForks();

/// Runs the body of an exported function; what is thrown becomes an error line and the failure.
template <typename Result, typename Body>
Result Guarded(const char* function, const char* key, Result failure, Body body) noexcept {
  try {
    if (key == nullptr || !IsSettingsKey(key)) {
      LogSettingsError(std::string(function) + ": not a key: " + (key != nullptr ? key : "(null)"));
      return failure;
    }
    return body();
  } catch (const std::exception& exception) {
    LogSettingsError(std::string(function) + " " + key + ": " + exception.what());
    return failure;
  }
}

char* CopyForCaller(const std::string& text) {
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy != nullptr) {
    std::memcpy(copy, text.c_str(), text.size() + 1);
  }
  return copy;
}

int GetInt(const char* function, const char* key, int* value) {
  return Guarded(function, key, FAILURE, [&] {
    int result = FAILURE;
    Store::Instance().AreaOf(key).Read(key, [&](const std::optional<SettingsValue>& found) {
      const int* number = found ? std::get_if<int>(&*found) : nullptr;
      if (number != nullptr && value != nullptr) {
        *value = *number;
        result = 0;
      }
    });
    return result;
  });
}

template <typename Argument>
int Set(const char* function, const char* key, Argument argument) {
  return Guarded(function, key, FAILURE, [&] {
    Store::Instance().AreaOf(key).Write(key, argument);
    return 0;
  });
}

}  // namespace
}  // namespace ondaro::host

using namespace ondaro::host;

char* platform_settings_get_string(const char* key) {
  return Guarded(__func__, key, static_cast<char*>(nullptr), [&] {
    char* copy = nullptr;
    Store::Instance().AreaOf(key).Read(key, [&](const std::optional<SettingsValue>& found) {
      if (const std::string* text = found ? std::get_if<std::string>(&*found) : nullptr) {
        copy = CopyForCaller(*text);
      }
    });
    return copy;
  });
}

int platform_settings_set_string(const char* key, const char* value) {
  if (value == nullptr) {
    LogSettingsError(std::string(__func__) + ": no value");
    return FAILURE;
  }
  return Set(__func__, key, value);
}

int platform_settings_get_int(const char* key, int* value) { return GetInt(__func__, key, value); }

int platform_settings_set_int(const char* key, int value) { return Set(__func__, key, value); }

int platform_settings_get_bool(const char* key, int* value) { return GetInt(__func__, key, value); }

int platform_settings_set_bool(const char* key, int value) { return Set(__func__, key, value); }

const char* platform_settings_node_name(platform_settings_node* node) {
  return node != nullptr ? node->change->key.c_str() : nullptr;
}

const char* platform_settings_node_string(platform_settings_node* node) {
  const std::string* text =
      node != nullptr ? std::get_if<std::string>(&node->change->value) : nullptr;
  return text != nullptr ? text->c_str() : nullptr;
}

int platform_settings_node_int(platform_settings_node* node) {
  const int* number = node != nullptr ? std::get_if<int>(&node->change->value) : nullptr;
  if (number == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return *number;
}

int platform_settings_subscribe(const char* key, platform_settings_changed_cb callback,
                                void* user_data) {
  return Guarded(__func__, key, FAILURE, [&] {
    if (callback == nullptr) {
      throw SettingsError(SettingsError::Kind::FAILED, "no callback");
    }
    Store::Instance().Subscribe(key, callback, user_data);
    return 0;
  });
}

int platform_settings_unsubscribe(const char* key, platform_settings_changed_cb callback) {
  return Guarded(__func__, key, FAILURE,
                 [&] { return Store::Instance().Unsubscribe(key, callback) ? 0 : FAILURE; });
}
