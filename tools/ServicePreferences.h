// The service's preference store as pelioctl reads it: through the platform's preferences module,
// read-only (never created or changed here). Any thread.
#pragma once

#include <pelio/platform/Preferences.h>
#include <memory>

// Null when the store does not exist yet. The caller owns the store.
std::unique_ptr<pelio::platform::Preferences> openServicePreferences();
