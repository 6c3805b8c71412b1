// KeysetReader: reads a whole table through the query bundles in pages, so that every SELECT
// stays within the row-transfer bound whatever the table's size. Pages follow the rowid
// ("rowid > last ORDER BY rowid LIMIT n"), so rows written between two pages are neither skipped
// nor read twice.
//
// Threads: any thread (each call goes through DbManager::plmsvc_db_process; do not call it
// inside a multi-query batch of the same thread). Errors: false (logged) when a SELECT fails;
// the rows already handed out stay handed out.
#pragma once

#include <functional>
#include <string>

#include <pelio/platform/Bundle.h>

class KeysetReader {
  public:
    // projection: the column list without rowid; each row comes with COL0 = rowid, then the
    // projection's columns from COL1. where: an extra condition ("dirty != 4") or "". pageRows:
    // rows per SELECT wanted; fewer when the projection would not fit the bound with that many.
    static bool readAll(const std::string& table, const std::string& projection,
                        const std::string& where, int pageRows,
                        const std::function<void(const pelio::platform::Bundle& row)>& onRow);
};
