// What `pelioctl status` shows and `pelioctl sync --wait` follows: each domain's sync state read
// from the shadow database (ShadowDatabase) and the service's preference store (read-only),
// whether the service runs, and the server address and certificate the service will use.
//
// Main thread of pelioctl. read() never writes anything; a missing database or store reads as
// "never synced" / the defaults.
#pragma once

#include <string>
#include <vector>

#include "DomainStatus.h"

namespace pelio::platform {
class Preferences;
}

class StatusReport {
  public:
    // Reads everything again; serviceRunning comes from the caller (the bus). False when the
    // database could not be read in full (the figures are then partial).
    bool read(bool serviceRunning);

    const std::vector<DomainStatus>& domains() const { return domains_; }
    // True when every domain the service has synced is in step (a domain it never synced does
    // not count against it).
    bool allInStep() const;

    // The summary screen, and the same as one JSON object (for scripts).
    std::string text() const;
    std::string json() const;

  private:
    void readServer(pelio::platform::Preferences* prefs);  // may be null: no store yet

    bool serviceRunning_ = false;
    std::string databaseNote_;  // why the database could not be read; empty when it was
    std::vector<DomainStatus> domains_;
    std::string host_;
    bool hostIsDefault_ = true;
    std::string locale_;
    int port_ = 0;
    std::string certificate_;  // empty: the system's CA store
    bool certificateExists_ = false;
};
