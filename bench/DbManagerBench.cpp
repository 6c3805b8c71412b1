// DbManager query bundles: multi-query INSERT of N rows, and one SELECT page of 1000 rows of a
// three-column projection (within the row-transfer bound of one SELECT).
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include <pelio/platform/Bundle.h>

#include "BenchSupport.h"
#include "database/DbManager.h"
#include "utils/BundleMacro.h"

using pelio::platform::Bundle;

namespace {

Bundle contactInsert(int i) {
    Bundle request;
    const std::string id = std::to_string(i);
    request.addStr(bundlekeys::OPERATION_KEY, bundlekeys::OP_INSERT);
    request.addStr(bundlekeys::URI_TABLE_NAME, "contacts");
    request.addStr(bundlekeys::COLUMN_COUNT, "3");
    request.addStr("COL1", "_id");
    request.addStr("_id", id);
    request.addStr("COL2", "contact_id");
    request.addStr("contact_id", id);
    request.addStr("COL3", "dirty");
    request.addStr("dirty", "1");
    return request;
}

// Inserts rows [0, count) in one multi-query transaction; false when one insert failed.
bool insertRows(DbManager* db, int count) {
    bool ok = true;
    db->beginMultiQuery();
    for (int i = 0; i < count && ok; ++i) {
        Bundle request = contactInsert(i);
        Bundle result;
        ok = db->insertDb(&request, &result) == 0;
    }
    db->setDbTransactionSuccessful();
    db->endMultiQuery();
    return ok;
}

void BM_DbMultiQueryInsert(benchmark::State& state) {
    pelio::bench::BenchHome home;
    const int rows = static_cast<int>(state.range(0));
    DbManager* db = DbManager::getInstance();
    for (auto _ : state) {
        state.PauseTiming();
        home.exec("DELETE FROM contacts");
        state.ResumeTiming();
        if (!insertRows(db, rows)) {
            state.SkipWithError("insert failed");
            break;
        }
    }
    if (home.rowCount("contacts") != rows)
        state.SkipWithError("unexpected row count after the inserts");
    state.SetItemsProcessed(state.iterations() * rows);
}
BENCHMARK(BM_DbMultiQueryInsert)
    ->Arg(1000)
    ->Arg(5000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_DbSelectPage1000x3(benchmark::State& state) {
    pelio::bench::BenchHome home;
    DbManager* db = DbManager::getInstance();
    if (!insertRows(db, 5000)) {
        state.SkipWithError("fill failed");
        return;
    }
    constexpr int kPage = 1000;
    int offset = 0;
    for (auto _ : state) {
        Bundle request;
        Bundle result;
        request.addStr(bundlekeys::OPERATION_KEY, bundlekeys::OP_SELECT);
        request.addStr(bundlekeys::URI_TABLE_NAME, "contacts");
        request.addStr(bundlekeys::PROJECTION, " _id, rev_id, dirty");
        request.addStr(bundlekeys::WHERE, "dirty != 4 ORDER BY rowid LIMIT " +
                                              std::to_string(kPage) + " OFFSET " +
                                              std::to_string(offset));
        offset = (offset + kPage) % 5000;
        const int rc = db->plmsvc_db_process(&request, &result);
        std::string status;
        result.getStr(bundlekeys::RECORD0, status);
        // record0 plus one record per row.
        if (rc != 0 || status != bundlekeys::SUCCESS || result.count() != kPage + 1) {
            state.SkipWithError("SELECT page failed or was cut short");
            break;
        }
        benchmark::DoNotOptimize(result);
    }
    state.SetItemsProcessed(state.iterations() * kPage);
}
BENCHMARK(BM_DbSelectPage1000x3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
