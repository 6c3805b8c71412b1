#include "BenchSupport.h"

#include <pelio/CHandles.h>
#include <sqlite3.h>

#include <pelio/platform/AppPaths.h>
#include <pelio/platform/Contacts.h>
#include <pelio/platform/Preferences.h>

#include "database/DbManager.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace pelio::bench {

namespace pp = pelio::platform;

BenchHome::BenchHome() {
    auto prefs = std::make_unique<pelio::test::FakePreferences>();
    prefs_ = prefs.get();
    pp::installPreferences(std::move(prefs));
    pp::installAppPaths(std::make_unique<pelio::test::FakeAppPaths>());
    pp::installContactsService(nullptr);  // the Linux contacts service, on this home's folder
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
    const std::string folder = std::string(std::getenv("XDG_DATA_HOME")) + "/contacts/book";
    std::filesystem::create_directories(folder);
    std::ofstream out(folder + "/persons.vcf", std::ios::trunc);
    for (int i = 0; i < count; ++i) {
        const std::string n = std::to_string(i);
        out << "BEGIN:VCARD\r\nVERSION:3.0\r\nUID:person-" << n << "\r\nFN:Person " << n
            << "\r\nN:Last" << n << ";First" << n << ";;;\r\nTEL;TYPE=CELL:010-555-" << n
            << "\r\nEND:VCARD\r\n";
    }
}

}  // namespace pelio::bench
