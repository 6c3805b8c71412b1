#include "StatementCache.h"

namespace pelio::platform {

StatementCache::Lease StatementCache::get(sqlite3* db, const char* sql) {
    std::unique_ptr<SqliteStatement>& slot = statements_[sql];
    if (!slot || !slot->ok())
        slot = std::make_unique<SqliteStatement>(db, sql);
    return Lease(*slot);
}

}  // namespace pelio::platform
