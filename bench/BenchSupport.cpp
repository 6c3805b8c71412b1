#include "BenchSupport.h"

#include <pelio/CHandles.h>
#include <sqlite3.h>

#include <pelio/platform/AppPaths.h>
#include <pelio/platform/Contacts.h>
#include <pelio/platform/Preferences.h>

#include "database/DbManager.h"

namespace pelio::bench {

namespace pp = pelio::platform;
using pelio::test::FakeContactsService;

BenchHome::BenchHome() {
    auto prefs = std::make_unique<pelio::test::FakePreferences>();
    prefs_ = prefs.get();
    pp::installPreferences(std::move(prefs));
    pp::installAppPaths(std::make_unique<pelio::test::FakeAppPaths>());
    auto contacts = std::make_unique<FakeContactsService>();
    contacts->setRequireConnection(false);
    contacts_ = contacts.get();
    pp::installContactsService(std::move(contacts));
    DbManager::resetInstanceForTesting();
    DbManager::getInstance();
}

BenchHome::~BenchHome() {
    DbManager::resetInstanceForTesting();
    pp::installContactsService(nullptr);
    pp::installAppPaths(nullptr);
    pp::installPreferences(nullptr);
}

namespace {
using Db = pelio::SqliteDb;

Db openDatabase() {
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open(DbManager::databasePath().c_str(), &raw);
    Db db(raw);
    if (rc != SQLITE_OK)
        db.reset();
    return db;
}
}  // namespace

bool BenchHome::exec(const std::string& sql) {
    Db db = openDatabase();
    return db && sqlite3_exec(db.get(), sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

int BenchHome::rowCount(const std::string& table) {
    Db db = openDatabase();
    if (!db)
        return -1;
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db.get(), ("SELECT count(*) FROM " + table).c_str(), -1, &raw,
                           nullptr) != SQLITE_OK)
        return -1;
    pelio::SqliteStmt stmt(raw);
    return sqlite3_step(stmt.get()) == SQLITE_ROW ? sqlite3_column_int(stmt.get(), 0) : -1;
}

void BenchHome::addPersons(int count) {
    contacts_->beginBatch();
    for (int i = 0; i < count; ++i) {
        const std::string n = std::to_string(i);
        contacts_->addContact(FakeContactsService::person("Person " + n, "First" + n, "Last" + n)
                                  .withNumber("010-555-" + n, pp::CONTACTS_NUMBER_TYPE_CELL, true));
    }
    contacts_->commitBatch();
}

}  // namespace pelio::bench
