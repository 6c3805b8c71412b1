// Device identity and platform facts. Free functions, any thread; they keep no state of their
// own besides preferences. Failures give the empty string (or 0) and one log line; none throws.
#pragma once

#include <string>

std::string getPlatformString(const std::string& key);
std::string getDeviceModelName();    // "snorlotest" when the platform has no model name
std::string getDeviceBuildString();
std::string getLocalePreference();   // preference "locale", else "en-US"
std::string getMediaHexaId(int audioRowId);
void sendsyncTriggerToEmbedded();
int getEmbeddedTriggerStatus();
void clearEmbeddedTrigger();
std::string getHashedDeviceId();     // SHA-256 hex of the platform id, computed once, then cached
std::string getDeviceID();
