// MultiQueryTransaction: one multi-query transaction of the store, scoped. The constructor begins
// it (DbManager::beginMultiQuery, which takes the store's lock); commit() marks it successful and
// ends it; leaving the scope without commit() ends it unmarked, which rolls it back, on every way
// out (an early return or a throw included).
//
// Threads: lives on the thread that made it, inside one function; between construction and the
// end, that thread must only use the multi-query calls of the store (insertDb, updateDb,
// deleteDb), never plmsvc_db_process (the lock is not recursive).
// Errors: commit() returns what endMultiQuery returned (0 ended as intended, -1 commit failed).
#pragma once

class DbManager;

class MultiQueryTransaction {
  public:
    explicit MultiQueryTransaction(DbManager* db);
    ~MultiQueryTransaction();
    MultiQueryTransaction(const MultiQueryTransaction&) = delete;
    MultiQueryTransaction& operator=(const MultiQueryTransaction&) = delete;

    int commit();

  private:
    DbManager* mDb;  // not owned; the store outlives every transaction
    bool mEnded = false;
};
