// The prepared statements of one SQLite connection, by SQL text: each is prepared the first time
// it is asked for and handed out as a lease that resets it (row and values cleared, so no read
// stays open on the connection) when the lease goes.
//
// Threads: its owner serialises the use (one thread at a time asks and uses the statements it got)
// and destroys it before the connection closes. Errors: a failed prepare gives a statement whose
// ok() is false; it is prepared again the next time.
#pragma once

#include "pelio/platform/SqliteStatement.h"

#include <memory>
#include <string>
#include <unordered_map>

namespace pelio::platform {

class StatementCache {
  public:
    class Lease {
      public:
        explicit Lease(SqliteStatement& statement) : statement_(statement) {}
        ~Lease() { statement_.reset(); }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        SqliteStatement& operator*() const { return statement_; }
        SqliteStatement* operator->() const { return &statement_; }

      private:
        SqliteStatement& statement_;
    };

    Lease get(sqlite3* db, const char* sql);

  private:
    std::unordered_map<std::string, std::unique_ptr<SqliteStatement>> statements_;
};

}  // namespace pelio::platform
