// The prepared statements of one SQLite connection, by SQL text: each is prepared the first time
// it is asked for and reset (row and values cleared) every time it is handed out again.
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
    SqliteStatement& get(sqlite3* db, const char* sql);

  private:
    std::unordered_map<std::string, std::unique_ptr<SqliteStatement>> statements_;
};

}  // namespace pelio::platform
