// Shared set-up of the benchmarks: a throw-away home with in-memory preferences and app paths, the
// Linux contacts service on the home's vCard folder, and a fresh DbManager on a real SQLite file
// below it. One BenchHome lives for
// the duration of one benchmark function (all its iterations); it is not thread-safe.
#pragma once

#include <memory>
#include <string>

#include "SyncHandlers/SyncHandlerHost.h"
#include "doubles/FakeAppPaths.h"
#include "doubles/FakePreferences.h"
#include "support/TempHome.h"

namespace pelio::bench {

class BenchHome {
  public:
    BenchHome();
    ~BenchHome();
    BenchHome(const BenchHome&) = delete;
    BenchHome& operator=(const BenchHome&) = delete;

    pelio::test::FakePreferences& prefs() { return *prefs_; }

    // Runs SQL on the database directly (outside DbManager); false on an engine error.
    bool exec(const std::string& sql);
    // count(*) of a table, -1 on error.
    int rowCount(const std::string& table);

    // Writes count named persons with one mobile number each into one vCard file; the contacts
    // service reads them (ids 1..count in a fresh home) when it next connects.
    void addPersons(int count);

  private:
    pelio::test::TempHome home_;
    pelio::test::FakePreferences* prefs_ = nullptr;
};

// A sync-manager host that only hands out the domain locks.
class QuietHost : public SyncHandlerHost {
  public:
    std::mutex* getDomainLock(int) override { return &lock_; }
    void set_sync_status(const char*, const char*) override {}
    void addSyncItemToQueue(int) override {}

  private:
    std::mutex lock_;
};

}  // namespace pelio::bench
