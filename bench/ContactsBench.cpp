// Contacts: composition of 5,000 dirty rows into upload documents (JSONComposer::makeSyncData(3))
// and the collector's pass over 5,000 contacts read from vCard files.
#include <benchmark/benchmark.h>

#include <string>

#include "BenchSupport.h"
#include "SyncHandlers/ContactsSyncHandler.h"
#include "composer/JSONComposer.h"
#include "upload/SyncData.h"

namespace {

constexpr int kContacts = 5000;

// Rows 1..count (the fake's ids) marked for insertion, in one transaction.
bool insertDirtyRows(pelio::bench::BenchHome& home, int count) {
    std::string sql = "BEGIN;";
    for (int i = 1; i <= count; ++i) {
        const std::string id = std::to_string(i);
        sql += "INSERT INTO contacts (_id, contact_id, dirty, version) VALUES ('" + id + "', " +
               id + ", 1, 1);";
    }
    return home.exec(sql + "COMMIT;");
}

void BM_ContactsCompose5000(benchmark::State& state) {
    pelio::bench::BenchHome home;
    home.addPersons(kContacts);
    if (!insertDirtyRows(home, kContacts)) {
        state.SkipWithError("fill failed");
        return;
    }
    for (auto _ : state) {
        auto data = JSONComposer().makeSyncData(3);
        if (!data || data->insertedCount != kContacts || data->documents.empty()) {
            state.SkipWithError("composition did not give 5,000 inserted documents");
            break;
        }
        benchmark::DoNotOptimize(data->documents.data());
    }
    state.counters["docs_per_s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * kContacts, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ContactsCompose5000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ContactsCollect5000(benchmark::State& state) {
    pelio::bench::BenchHome home;
    home.addPersons(kContacts);
    pelio::bench::QuietHost host;
    ContactsSyncHandler handler(&host);
    for (auto _ : state) {
        state.PauseTiming();
        home.exec("DELETE FROM contacts");  // every pass starts from an empty shadow table
        state.ResumeTiming();
        if (handler.syncData(98) != 0) {
            state.SkipWithError("collection failed");
            break;
        }
    }
    if (home.rowCount("contacts") != kContacts)
        state.SkipWithError("collection did not record 5,000 rows");
    state.counters["contacts_per_s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * kContacts, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ContactsCollect5000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
