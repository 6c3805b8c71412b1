#include "database/MultiQueryTransaction.h"

#include "database/DbManager.h"

MultiQueryTransaction::MultiQueryTransaction(DbManager* db) : mDb(db) {
    mDb->beginMultiQuery();
}

MultiQueryTransaction::~MultiQueryTransaction() {
    if (!mEnded)
        mDb->endMultiQuery();  // not marked successful: rolled back
}

int MultiQueryTransaction::commit() {
    mEnded = true;
    mDb->setDbTransactionSuccessful();
    return mDb->endMultiQuery();
}
