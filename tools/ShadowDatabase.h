// The service's shadow database, read by pelioctl without getting in the service's way: opened
// read-only with a busy time-out, so a reader waits briefly for a writer instead of failing or
// blocking it (the service may write in WAL mode; a reader never takes a write lock).
//
// Owns its SQLite handle (closed by the destructor). One thread at a time.
#pragma once

#include <pelio/CHandles.h>
#include <sqlite3.h>

#include <map>
#include <memory>
#include <string>

class ShadowDatabase {
  public:
    // $XDG_DATA_HOME/com.quorvin.plmsvc/shared/trusted/databases/.orvane.db
    static std::string path();

    // False when the file does not exist yet, or cannot be opened (then error() says why).
    bool open();
    const std::string& error() const { return error_; }

    // A read transaction, so that several reads see one state of the database. end() finishes
    // it; it reports whether every read since begin() succeeded (none met a lock held longer
    // than the busy time-out, or another failure).
    void begin();
    bool end();

    // Rows of table by dirty flag (NULL counts under -1). False when the table is missing.
    bool countByDirty(const std::string& table, std::map<int, long>& counts);
    // Master table rows whose key matches the SQL LIKE pattern or equals exactKey, sorted by key.
    // False when the master table is missing.
    bool masterRows(const std::string& likePattern, const std::string& exactKey,
                    std::map<std::string, std::string>& rows);

  private:
    bool noteMissingOrFailed();  // after a failed prepare; returns false

    pelio::SqliteDb db_;
    std::string error_;
    bool failed_ = false;
};
