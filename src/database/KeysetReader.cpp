#include "database/KeysetReader.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "PelioLog.h"
#include "database/DbManager.h"
#include "utils/BundleMacro.h"

using pelio::platform::Bundle;

namespace {

// The rows one SELECT of this projection can move within the row-transfer bound (DbManager.h: a
// projection of L characters naming k columns allows k + 4094 - L column reads), one row spare;
// at most `wanted`.
int boundedPageRows(const std::string& projection, int wanted) {
    const int columns = 1 + static_cast<int>(std::count(projection.begin(), projection.end(), ','));
    const int reads = columns + 4094 - static_cast<int>(projection.size());
    return std::max(1, std::min(wanted, reads / columns - 1));
}

}  // namespace

bool KeysetReader::readAll(const std::string& table, const std::string& columns,
                           const std::string& where, int wantedRows,
                           const std::function<void(const Bundle& row)>& onRow) {
    const std::string projection = "rowid, " + columns;
    const int pageRows = boundedPageRows(projection, wantedRows);
    long long last = 0;
    for (;;) {
        const long long pageStart = last;
        Bundle request;
        Bundle result;
        request.addStr(bundlekeys::OPERATION_KEY, bundlekeys::OP_SELECT);
        request.addStr(bundlekeys::URI_TABLE_NAME, table);
        request.addStr(bundlekeys::PROJECTION, projection);
        std::string condition = "rowid > " + std::to_string(last);
        if (!where.empty())
            condition += " AND (" + where + ")";
        request.addStr(bundlekeys::WHERE,
                       condition + " ORDER BY rowid LIMIT " + std::to_string(pageRows));
        if (DbManager::getInstance()->plmsvc_db_process(&request, &result) != 0 ||
            getValStr(&result, bundlekeys::RECORD0) != bundlekeys::SUCCESS) {
            LOGE("reading %s failed after rowid %lld", table.c_str(), last);
            return false;
        }
        int rows = 0;
        for (int n = 1;; ++n) {
            std::vector<uint8_t> bytes;
            if (result.getByte(recordKey(n), bytes) != pelio::platform::BUNDLE_ERROR_NONE)
                break;
            ++rows;
            auto row = Bundle::decode(bytes);
            if (!row) {
                LOGE("undecodable row %d of %s", n, table.c_str());
                continue;
            }
            last = std::strtoll(getValStr(&*row, columnKey(0)).c_str(), nullptr, 10);
            onRow(*row);
        }
        // A full page that did not move the key on (its rows undecodable) would repeat itself.
        if (rows < pageRows || last == pageStart)
            return true;
    }
}
