#include "platform/SettingsStore.h"

#include <cerrno>

// What a callback is given; the seam says no more about it than its name.
struct platform_settings_node {};

char* platform_settings_get_string(const char* /*key*/) { return nullptr; }

int platform_settings_set_string(const char* /*key*/, const char* /*value*/) { return -1; }

int platform_settings_get_int(const char* /*key*/, int* /*value*/) { return -1; }

int platform_settings_set_int(const char* /*key*/, int /*value*/) { return -1; }

int platform_settings_get_bool(const char* /*key*/, int* /*value*/) { return -1; }

int platform_settings_set_bool(const char* /*key*/, int /*value*/) { return -1; }

const char* platform_settings_node_name(platform_settings_node* /*node*/) { return nullptr; }

const char* platform_settings_node_string(platform_settings_node* /*node*/) { return nullptr; }

int platform_settings_node_int(platform_settings_node* /*node*/) {
  errno = EINVAL;
  return -1;
}

int platform_settings_subscribe(const char* /*key*/, platform_settings_changed_cb /*callback*/,
                                void* /*user_data*/) {
  return -1;
}

int platform_settings_unsubscribe(const char* /*key*/, platform_settings_changed_cb /*callback*/) {
  return -1;
}
