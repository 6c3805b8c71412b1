#include "database/KeysetReader.h"

#include <cstdlib>
#include <vector>

#include "PelioLog.h"
#include "database/DbManager.h"
#include "utils/BundleMacro.h"

using pelio::platform::Bundle;

bool KeysetReader::readAll(const std::string& table, const std::string& projection,
                           const std::string& where, int pageRows,
                           const std::function<void(const Bundle& row)>& onRow) {
    long long last = 0;
    for (;;) {
        const long long pageStart = last;
        Bundle request;
        Bundle result;
        request.addStr(bundlekeys::OPERATION_KEY, bundlekeys::OP_SELECT);
        request.addStr(bundlekeys::URI_TABLE_NAME, table);
        request.addStr(bundlekeys::PROJECTION, "rowid, " + projection);
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
