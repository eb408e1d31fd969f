/// The seam's settings store on SQLite: checks the keys and ends every exception.
///
///   SettingsSubscriptions   reads the log of changes and calls back
///   SharedSettings          what a process has of the store, with cache and recovery
///     SettingsDatabase      values and log of changes
///     SettingsBell          tells the processes of commits
///
/// The store is to be changed through this interface only: what another program writes into the
/// database rings no bell.
#include "platform/SettingsStore.h"

#include <glib.h>
#include <pthread.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "HostKeys.h"
#include "SettingsSubscriptions.h"

namespace ondaro::host {
namespace {

constexpr int FAILURE = -1;

/// Made by the first call and never destroyed: other libraries call until the process has ended.
struct Store {
  SharedSettings settings{&StateDirectory};
  SettingsSubscriptions subscriptions{settings};
};

Store& TheStore() {
  static auto* const store = new Store;
  return *store;
}

/// A fork waits for a first call under way in another thread: its child would find the store half
/// made, with nobody left to finish it. So the handlers are there before any call.
[[maybe_unused]] const int g_forksFollowed = pthread_atfork(
    [] {
      TheStore().settings.BeforeFork();
      TheStore().subscriptions.BeforeFork();
    },
    [] {
      TheStore().subscriptions.AfterForkInParent();
      TheStore().settings.AfterForkInParent();
    },
    [] {
      TheStore().settings.AfterForkInChild();
      TheStore().subscriptions.AfterForkInChild();
    });

/// After the process's own last functions and those of libraries that need this one.
[[gnu::destructor]] void AtEnd() { TheStore().settings.Close(); }

bool IsSegment(std::string_view segment) {
  return !segment.empty() && segment != "." && segment != "..";
}

/// Relative, slash-separated, UTF-8, at most 255 bytes, without an empty, `.` or `..` segment.
bool IsKey(std::string_view key) {
  constexpr std::size_t LONGEST = 255;
  if (key.size() > LONGEST ||
      g_utf8_validate(key.data(), static_cast<gssize>(key.size()), nullptr) == FALSE) {
    return false;
  }
  for (std::size_t slash = 0; (slash = key.find('/')) != std::string_view::npos;) {
    if (!IsSegment(key.substr(0, slash))) {
      return false;
    }
    key.remove_prefix(slash + 1);
  }
  return IsSegment(key);
}

/// Runs the body of an exported function; what is thrown becomes an error line and the failure.
template <typename Result, typename Body>
Result Guarded(const char* function, const char* key, Result failure, Body body) noexcept {
  try {
    if (key == nullptr || !IsKey(key)) {
      LogSettingsError(std::string(function) + ": not a key: " + (key != nullptr ? key : "(null)"));
      return failure;
    }
    return body(std::string(key));
  } catch (const std::exception& exception) {
    platform_log_print(LOG_MAIN_BUFFER, LOG_PRIORITY_ERROR, LOG_TAG, "settings: %s %s: %s",
                       function, key != nullptr ? key : "(null)", exception.what());
    return failure;
  }
}

int GetInt(const char* function, const char* key, int* value) {
  return Guarded(function, key, FAILURE, [&](const std::string& name) {
    int result = FAILURE;
    TheStore().settings.Read(name, [&](const SharedSettings::Value& found) {
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
  return Guarded(function, key, FAILURE, [&](const std::string& name) {
    if (name == keys::STATE_DIRECTORY) {
      throw SettingsError(SettingsError::Kind::FAILED, "it is for reading");
    }
    TheStore().settings.Write(name, argument);
    return 0;
  });
}

}  // namespace
}  // namespace ondaro::host

using namespace ondaro::host;

char* platform_settings_get_string(const char* key) {
  return Guarded(__func__, key, static_cast<char*>(nullptr), [](const std::string& name) {
    if (name == keys::STATE_DIRECTORY) {
      return strdup(StateDirectory().c_str());
    }
    char* copy = nullptr;
    TheStore().settings.Read(name, [&](const SharedSettings::Value& found) {
      const std::string* text = found ? std::get_if<std::string>(&*found) : nullptr;
      copy = text != nullptr ? strdup(text->c_str()) : nullptr;
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
  return Guarded(__func__, key, FAILURE, [&](const std::string& name) {
    if (callback == nullptr) {
      throw SettingsError(SettingsError::Kind::FAILED, "no callback");
    }
    TheStore().subscriptions.Subscribe(name, callback, user_data);
    return 0;
  });
}

int platform_settings_unsubscribe(const char* key, platform_settings_changed_cb callback) {
  return Guarded(__func__, key, FAILURE, [&](const std::string& name) {
    return TheStore().subscriptions.Unsubscribe(name, callback) ? 0 : FAILURE;
  });
}
