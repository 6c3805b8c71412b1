#include "database/DbManager.h"

#include <cstdlib>
#include <cstring>
#include <system_error>

#include <pelio/platform/SqliteStatement.h>

#include "PelioLog.h"
#include "utils/BundleMacro.h"
#include "utils/PathConfig.h"

using pelio::platform::Bundle;
using namespace bundlekeys;

namespace {

// Fixed size of the SQL text buffers of SELECT, UPDATE and DELETE, and of the projection buffer
// walked by the row-transfer cursor.
constexpr size_t MAX_QUERY_SIZE = 4096;

const char* const kCreateStatements[] = {
    "CREATE TABLE if not exists contacts(_id TEXT NOT NULL ,rev_id TEXT ,dirty INTEGER "
    ",device_mode "
    "INTEGER,contact_id   LONG,confirmed_alias TEXT ,confirmed_phonetic_alias   TEXT ,version   "
    "INTEGER ); ",
    // Answers to contact documents, and the collector's look-ups, find their row by id.
    "CREATE INDEX if not exists contacts_id ON contacts(_id);",
    "CREATE TABLE if not exists audio(_id INTEGER PRIMARY KEY AUTOINCREMENT,rev_id TEXT,dirty "
    "INTEGER,device_mode INTEGER,audio_id LONG ,date_added LONG ,type INTEGER,artist_name "
    "TEXT,album_name TEXT) ;",
    // Answers to media documents find their row by item id and type.
    "CREATE INDEX if not exists audio_item ON audio(audio_id, type);",
    "CREATE TABLE if not exists audio_playlist(playlist_id INTEGER PRIMARY KEY,rev_id TEXT,dirty "
    "INTEGER,name TEXT,playlist_songs_count INTEGER);",
    "CREATE TABLE if not exists master(_id INTEGER PRIMARY KEY AUTOINCREMENT,key TEXT NOT "
    "NULL,value TEXT);",
    "CREATE TABLE if not exists application(_id  TEXT NOT NULL,rev_id TEXT,version "
    "TEXT,device_mode "
    "INTEGER,name TEXT,custom_id TEXT,package TEXT NOT NULL,pre_installed INT,dirty INTEGER);",
    "CREATE INDEX if not exists application_id ON application(_id);",
};

using pelio::platform::SqliteStatement;
using Errmsg = pelio::SqliteText;

// Which operation binds, for its own failure messages.
enum class BindFor { Select, Update, Delete };

// The SQL text of SELECT, UPDATE and DELETE must fit the fixed text buffer.
bool fitsQueryBuffer(const std::string& sql) {
    if (sql.size() < MAX_QUERY_SIZE)
        return true;
    LOGE("query text too long (%zu bytes, limit %zu)", sql.size(), MAX_QUERY_SIZE - 1);
    return false;
}

// Binds the "?" placeholders of where from args "(TYPE)value(TYPE)value...". 0 or a failure code.
int bindWhereArgs(sqlite3* db, SqliteStatement& stmt, const std::string& where,
                  const std::string& args, BindFor op) {
    int count = 0;
    for (char c : where)
        if (c == '?')
            ++count;
    size_t pos = 0;
    for (int index = 1; index <= count; ++index) {
        if (pos < args.size() && args[pos] == '(')
            ++pos;
        std::string type, value;
        while (pos < args.size() && args[pos] != ')')
            type += args[pos++];
        if (pos < args.size())
            ++pos;  // ')'
        while (pos < args.size() && args[pos] != '(')
            value += args[pos++];
        int rc;
        if (type.rfind("TEXT", 0) == 0) {
            rc = stmt.bind(index, value).error();
            if (rc != SQLITE_OK) {
                if (op == BindFor::Select)
                    LOGE("bind text fail %s index =%d type =%s value =%s value_length =%d",
                         sqlite3_errmsg(db), index, type.c_str(), value.c_str(),
                         static_cast<int>(value.size()));
                else if (op == BindFor::Update)
                    LOGE("bind text fail ");
                return rc;
            }
        } else if (type.rfind("INTEGER", 0) == 0) {
            const int number = static_cast<int>(std::strtol(value.c_str(), nullptr, 10));
            rc = stmt.bind(index, number).error();
            if (rc != SQLITE_OK) {
                if (op == BindFor::Select)
                    LOGE("bind fail %s index =%d type =%s value =%s value_length =%d",
                         sqlite3_errmsg(db), index, type.c_str(), value.c_str(),
                         static_cast<int>(value.size()));
                else if (op == BindFor::Update)
                    LOGE("bind_int fail %s, index =%d ype =%s value =%s value_length =%d",
                         sqlite3_errmsg(db), index, type.c_str(), value.c_str(),
                         static_cast<int>(value.size()));
                return rc;
            }
        } else {
            LOGE("err %s", type.c_str());
            return -1;
        }
    }
    return 0;
}

// Runs the single step of a write; adds "record0" = "SUCCESS" when it finished with done.
int stepWrite(SqliteStatement& stmt, Bundle* result) {
    const int rc = stmt.step();
    if (rc != SQLITE_DONE) {
        LOGE("err %d", rc);
        return rc == SQLITE_OK ? -1 : rc;
    }
    result->addStr(RECORD0, SUCCESS);
    return 0;
}

int doInsert(sqlite3* db, Bundle* request, Bundle* result) {
    const std::string operation = getValStr(request, OPERATION_KEY);
    if (operation.empty()) {
        LOGE("Failed to get operation");
        return -1;
    }
    const std::string cntStr = getValStr(request, COLUMN_COUNT);
    if (cntStr.empty()) {
        LOGE("Failed to get cntStr");
        return -1;
    }
    const std::string tableName = getValStr(request, URI_TABLE_NAME);
    if (tableName.empty()) {
        LOGE("Failed to get tableName");
        return -1;
    }
    const int count = std::stoi(cntStr);  // throws for a count that is not a number
    std::string records, quotes;
    for (int i = 1; i <= count; ++i) {
        const std::string name = getValStr(request, columnKey(i));
        if (name.empty()) {
            LOGE("Failed to get record");
            return -1;
        }
        const std::string value = getValStr(request, name);
        if (value.empty()) {
            LOGE("Failed to get value");
            return -1;
        }
        if (!records.empty()) {
            records += ",";
            quotes += ",";
        }
        records += name;
        quotes += "'" + value + "'";
    }
    if (records.empty()) {
        LOGE("Failed to make records");
        return -1;
    }
    if (quotes.empty()) {
        LOGE("Failed to make quotes");
        return -1;
    }
    const std::string sql =
        operation + " INTO " + tableName + " (" + records + ") VALUES (" + quotes + ");";
    SqliteStatement stmt(db, sql);
    if (!stmt.ok()) {
        LOGE("prepare[%s] Fail [%s]", sql.c_str(), sqlite3_errmsg(db));
        return stmt.error();
    }
    return stepWrite(stmt, result);
}

int doUpdate(sqlite3* db, Bundle* request, Bundle* result) {
    const std::string operation = getValStr(request, OPERATION_KEY);
    if (operation.empty()) {
        LOGE("operation is empty");
        return -1;
    }
    const std::string tableName = getValStr(request, URI_TABLE_NAME);
    if (tableName.empty()) {
        LOGE("tableName is empty");
        return -1;
    }
    const std::string cntStr = getValStr(request, COLUMN_COUNT);
    if (cntStr.empty()) {
        LOGE("cntStr is empty");
        return -1;
    }
    const int count = std::stoi(cntStr);  // throws for a count that is not a number
    std::string sql = operation + " " + tableName + " SET ";
    for (int i = 1; i <= count; ++i) {
        const std::string name = getValStr(request, columnKey(i));
        const std::string value = getValStr(request, name);
        if (i > 1)
            sql += " , ";
        sql.append(name).append(" = ").append(value);
    }
    const std::string where = getValStr(request, WHERE);
    if (!where.empty())
        sql += " WHERE " + where;
    if (!fitsQueryBuffer(sql))
        return -1;
    SqliteStatement stmt(db, sql);
    if (!stmt.ok()) {
        LOGE("prepare %s fail %s", sql.c_str(), sqlite3_errmsg(db));
        return stmt.error();
    }
    const int rc = bindWhereArgs(db, stmt, where, getValStr(request, WHERE_ARGS), BindFor::Update);
    if (rc != 0) {
        LOGE("bind fail");
        return rc;
    }
    return stepWrite(stmt, result);
}

int doDelete(sqlite3* db, Bundle* request, Bundle* result) {
    std::string sql =
        getValStr(request, OPERATION_KEY) + " FROM " + getValStr(request, URI_TABLE_NAME);
    const std::string where = getValStr(request, WHERE);
    if (!where.empty())
        sql += " WHERE " + where;
    if (!fitsQueryBuffer(sql))
        return -1;
    SqliteStatement stmt(db, sql);
    if (!stmt.ok()) {
        LOGE("prepare %s fail %s", sql.c_str(), sqlite3_errmsg(db));
        return stmt.error();
    }
    const int rc = bindWhereArgs(db, stmt, where, getValStr(request, WHERE_ARGS), BindFor::Delete);
    if (rc != 0) {
        LOGE("bind fail %s", sqlite3_errmsg(db));
        return rc;
    }
    return stepWrite(stmt, result);
}

int doSelect(sqlite3* db, Bundle* request, Bundle* result) {
    const std::string projection = getValStr(request, PROJECTION);
    std::string sql = getValStr(request, OPERATION_KEY) + " " + projection + " FROM " +
                      getValStr(request, URI_TABLE_NAME);
    const std::string where = getValStr(request, WHERE);
    if (!where.empty())
        sql += " WHERE " + where;
    if (!fitsQueryBuffer(sql))
        return -1;
    SqliteStatement stmt(db, sql);
    if (!stmt.ok()) {
        LOGE("prepare[%s] fail. [%s]", sql.c_str(), sqlite3_errmsg(db));
        return stmt.error();
    }
    int rc = bindWhereArgs(db, stmt, where, getValStr(request, WHERE_ARGS), BindFor::Select);
    if (rc != 0)
        return rc;

    // The projection in a zero-filled working buffer, walked token by token by one cursor for the
    // whole query: it is not reset between rows, so rows after the first see empty tokens (no
    // blob columns) and every column read moves it on by one until MAX_QUERY_SIZE.
    char columns[MAX_QUERY_SIZE] = {};
    std::memcpy(columns, projection.data(), std::min(projection.size(), MAX_QUERY_SIZE - 1));
    size_t j = 0;
    int counter = 0;
    for (;;) {
        ++counter;
        rc = stmt.step();
        if (rc == SQLITE_DONE) {
            result->addStr(RECORD0, SUCCESS);
            return 0;
        }
        if (rc != SQLITE_ROW) {
            LOGE("query err");
            return rc;
        }
        Bundle row;
        const int columnCount = stmt.columnCount();
        for (int c = 0; c < columnCount; ++c) {
            std::string token;
            while (columns[j] != ',' && columns[j] != '\0')
                token += columns[j++];
            ++j;
            if (j >= MAX_QUERY_SIZE) {
                LOGE("error j = %d > MAX_QUERY_SIZE", static_cast<int>(j));
                return -1;
            }
            int added;
            if (token.find("_blob") != std::string::npos) {
                const std::string blob = stmt.columnBlob(c);
                added = row.addByte(columnKey(c), blob.data(), blob.size());
                if (added != pelio::platform::BUNDLE_ERROR_NONE) {
                    LOGE("error byte = %d", added);
                    return -1;
                }
            } else {
                added = row.addStr(columnKey(c),
                                   stmt.columnIsNull(c) ? std::string("NULL") : stmt.columnText(c));
                if (added != pelio::platform::BUNDLE_ERROR_NONE) {
                    LOGE("error str = %d", added);
                    return -1;
                }
            }
        }
        const std::vector<uint8_t> encoded = row.encode();
        if (encoded.empty()) {
            LOGE("err encode= %d", -1);
            return -1;
        }
        const int stored = result->addByte(recordKey(counter), encoded.data(), encoded.size());
        if (stored != pelio::platform::BUNDLE_ERROR_NONE) {
            LOGE("err byte= %d", stored);
            return -1;
        }
    }
}

int doDrop(sqlite3* db, Bundle* request, Bundle* result) {
    const std::string sql =
        getValStr(request, OPERATION_KEY) + " TABLE " + getValStr(request, URI_TABLE_NAME);
    SqliteStatement stmt(db, sql);
    if (!stmt.ok()) {
        LOGE("prepare %s fail %s", sql.c_str(), sqlite3_errmsg(db));
        return stmt.error();
    }
    return stepWrite(stmt, result);
}

}  // namespace

std::mutex DbManager::sInstanceMutex;

std::unique_ptr<DbManager>& DbManager::holder() {
    static std::unique_ptr<DbManager> instance;
    return instance;
}

DbManager* DbManager::getInstance() {
    std::lock_guard<std::mutex> guard(sInstanceMutex);
    auto& instance = holder();
    if (!instance)
        instance.reset(new DbManager());
    return instance.get();
}

void DbManager::resetInstanceForTesting() {
    std::lock_guard<std::mutex> guard(sInstanceMutex);
    holder().reset();
}

std::string DbManager::databasePath() {
    return PathConfig::GetSharedTrustedPath("databases/.orvane.db");
}

DbManager::DbManager() {
    PathConfig::MakeAppSubDir();
    std::lock_guard<std::mutex> guard(db_lock);
    LOGD("db_lock start here in DbManager");
    if (createTables() != 0)
        LOGE("failed to open Db");
    LOGD("db_lock end here in DbManager");
}

DbManager::~DbManager() {
    if (mInTransaction)
        endDbTransaction();
    if (mDb && sqlite3_close_v2(mDb.release()) != SQLITE_OK)
        LOGE("Failed to close db");
}

int DbManager::plmsvc_db_process(Bundle* request, Bundle* result) {
    std::lock_guard<std::mutex> guard(db_lock);  // released on every way out, a throw included
    const std::string operation = getValStr(request, OPERATION_KEY);
    if (operation.empty() || result == nullptr) {
        LOGE("operation can not be empty");
        if (result != nullptr)
            result->addStr(RECORD0, FAILURE);
        return -1;
    }
    // Each operation of the protocol: what its open failure and its failure say, and what runs it.
    struct Operation {
        const char* name;
        const char* openFailure;
        const char* failure;
        int (*run)(sqlite3*, Bundle*, Bundle*);
    };
    static const Operation kOperations[] = {
        {OP_INSERT, "DB Open fail", "insert err", doInsert},
        {OP_SELECT, "open db fail", "select err", doSelect},
        {OP_UPDATE, "DB Open fail", "update err", doUpdate},
        {OP_DELETE, "db open err", "del fail", doDelete},
        {OP_DROP, "db open err", "drop fail", doDrop},
    };
    int rc = 0;
    const char* failure = "create err";
    if (operation == OP_CREATE) {
        rc = createTables();
    } else {
        const Operation* op = nullptr;
        for (const Operation& candidate : kOperations)
            if (operation == candidate.name)
                op = &candidate;
        if (op == nullptr)
            return 0;  // not an operation of the protocol: nothing is executed
        failure = op->failure;
        if (openDb() != 0) {
            LOGE("%s", op->openFailure);
            rc = -1;
        } else {
            // Closed on every way out: a non-numeric "COLUMN_COUNT" throws out of INSERT and
            // UPDATE.
            struct CloseOnExit {
                DbManager* manager;
                ~CloseOnExit() { manager->closeDb(); }
            } closer{this};
            rc = op->run(mDb.get(), request, result);
        }
        if (rc == 0 && op->run == doDrop)
            createTables();  // a dropped table comes back empty at once
    }
    if (rc == 0)
        return 0;
    LOGE("%s= %d", failure, rc);
    LOGE("add fail");
    const int added = result->addStr(RECORD0, FAILURE);
    if (added != pelio::platform::BUNDLE_ERROR_NONE)
        LOGE("add_str err= %d", added);
    return -1;
}

int DbManager::createTables() {
    if (openDb() != 0) {
        LOGE("cannot open db");
        return -1;
    }
    for (const char* statement : kCreateStatements) {
        char* raw = nullptr;
        const int rc = sqlite3_exec(mDb.get(), statement, nullptr, nullptr, &raw);
        Errmsg msg(raw);
        if (rc != SQLITE_OK)
            LOGE("SQL ERROR %s", msg ? msg.get() : sqlite3_errstr(rc));
    }
    closeDb();
    return 0;
}

void DbManager::beginMultiQuery() {
    lock();
    mInMultiQuery = true;
    openDb();
    if (!mDb)
        return;  // db_lock stays held until endMultiQuery
    beginDbTransaction();
}

int DbManager::insertDb(Bundle* request, Bundle* result) {
    if (!mDb || !mInMultiQuery) {
        LOGE("insertDb fail : DB isn't opened.");
        return -1;
    }
    return doInsert(mDb.get(), request, result);
}

int DbManager::updateDb(Bundle* request, Bundle* result) {
    if (!mDb || !mInMultiQuery) {
        LOGE("updateDb fail : DB isn't opened.");
        return -1;
    }
    return doUpdate(mDb.get(), request, result);
}

int DbManager::deleteDb(Bundle* request, Bundle* result) {
    if (!mDb || !mInMultiQuery) {
        LOGE("deleteDb fail : DB isn't opened.");
        return -1;
    }
    return doDelete(mDb.get(), request, result);
}

void DbManager::setDbTransactionSuccessful() {
    if (mDb && mInMultiQuery)
        mTransactionSuccessful = true;
}

int DbManager::endMultiQuery() {
    int rc = mDb ? 0 : -1;  // no connection: nothing was written
    if (mInTransaction && endDbTransaction() != 0)
        rc = -1;
    if (mDb)
        closeDb();
    mInMultiQuery = false;
    unlock();
    return rc;
}

bool DbManager::runInTransaction(const std::function<bool(sqlite3*)>& work) {
    std::lock_guard<std::mutex> guard(db_lock);
    if (openDb() != 0)
        return false;
    bool ok = false;
    char* raw = nullptr;
    if (sqlite3_exec(mDb.get(), "BEGIN IMMEDIATE", nullptr, nullptr, &raw) != SQLITE_OK) {
        Errmsg msg(raw);
        LOGE("Failed to begin [%s]", msg ? msg.get() : "");
    } else {
        const bool done = work(mDb.get());
        raw = nullptr;
        const int rc =
            sqlite3_exec(mDb.get(), done ? "COMMIT" : "ROLLBACK", nullptr, nullptr, &raw);
        Errmsg msg(raw);
        if (rc != SQLITE_OK) {
            LOGE("Failed to end the transaction [%s]", msg ? msg.get() : sqlite3_errstr(rc));
            sqlite3_exec(mDb.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        }
        ok = done && rc == SQLITE_OK;
    }
    closeDb();
    return ok;
}

int DbManager::beginDbTransaction() {
    char* raw = nullptr;
    const int rc = sqlite3_exec(mDb.get(), "BEGIN TRANSACTION", nullptr, nullptr, &raw);
    Errmsg msg(raw);
    if (rc != SQLITE_OK) {
        LOGE("Failed to sqlite3_exec with code[%d], msg[%s]", rc, msg ? msg.get() : "");
        return rc;
    }
    mInTransaction = true;
    return 0;
}

int DbManager::endDbTransaction() {
    const char* statement = "ROLLBACK";
    if (mTransactionSuccessful) {
        mTransactionSuccessful = false;
        statement = "COMMIT";
    }
    char* raw = nullptr;
    const int rc = sqlite3_exec(mDb.get(), statement, nullptr, nullptr, &raw);
    Errmsg msg(raw);
    mInTransaction = false;
    if (rc != SQLITE_OK) {
        LOGE("Failed to sqlite3_exec with code[%d], msg[%s]", rc, msg ? msg.get() : "");
        return rc;
    }
    return 0;
}

bool DbManager::inDbTransaction() const {
    return mInTransaction;
}

int DbManager::openDb() {
    if (mDb)
        return 0;
    const std::string path = databasePath();
    sqlite3* raw = nullptr;
    const int rc = path.empty() ? SQLITE_CANTOPEN : sqlite3_open(path.c_str(), &raw);
    pelio::SqliteDb db(raw);  // sqlite3_open hands out a handle even when it fails
    if (rc != SQLITE_OK) {
        LOGE("Failed to open[%d]", rc);
        return -1;
    }
    // Another connection (a reader such as pelioctl, or a second process during a restart) may
    // hold the file for a moment: wait for it instead of failing the write.
    sqlite3_busy_timeout(db.get(), kBusyTimeoutMs);
    // Write-ahead log: a commit appends to the log without syncing the file (synchronous NORMAL
    // is durable across a crash of the process; only a power cut may lose the last commits,
    // which then go up again with the next sync). Readers never block the writer.
    sqlite3_exec(db.get(), "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr, nullptr,
                 nullptr);
    // Nor is the log folded into the file when the connection closes at the service's end: that
    // checkpoint syncs the file to disk (5-35 ms here) while the service could have ended. The
    // log stays beside the file, readers see it, and the next commits fold it in as it grows.
    sqlite3_db_config(db.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    mDb = std::move(db);
    LOGD("DB Open Success");
    return 0;
}

int DbManager::dbOpen(sqlite3** handle) {
    const int rc = openDb();
    if (handle != nullptr)
        *handle = mDb.get();
    return rc;
}

int DbManager::closeDb() {
    // The connection stays open for the next request (reopening it parses the schema and, without
    // a kept connection, checkpoints the write-ahead log every time); only a connection that is
    // still inside a transaction is closed, which rolls that transaction back.
    if (!mDb || sqlite3_get_autocommit(mDb.get()) != 0)
        return 0;
    const int rc = sqlite3_close_v2(mDb.release());
    if (rc != SQLITE_OK) {
        LOGE("Failed to close db");
        return -1;
    }
    return 0;
}

int DbManager::dbClose() {
    return closeDb();
}

void DbManager::lock() {
    try {
        db_lock.lock();
    } catch (const std::system_error&) {
        LOGE("ERROR ERROR: DEADLOCK on lock %p\n", static_cast<void*>(&db_lock));
    }
}

void DbManager::unlock() {
    db_lock.unlock();
}
