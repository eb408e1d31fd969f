#ifndef ONDARO_PLATFORM_HOST_SETTINGSNODE_H
#define ONDARO_PLATFORM_HOST_SETTINGSNODE_H

#include "SettingsValue.h"

/// The seam's opaque node: a change, for as long as its callback runs.
struct platform_settings_node {
  const ondaro::host::SettingsChange* change;
};

#endif
