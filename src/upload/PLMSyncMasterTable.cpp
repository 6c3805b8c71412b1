#include "upload/PLMSyncMasterTable.h"

#include <cstdlib>
#include <cstring>

#include <pelio/CHandles.h>

#include "PelioLog.h"
#include "database/DbManager.h"
#include "utils/BundleMacro.h"

using pelio::platform::Bundle;
using namespace bundlekeys;

std::unique_ptr<Bundle> get_query_bundle(const char* const* keyValues, int size) {
    if (keyValues == nullptr || size <= 0 || size % 2 != 0) {
        LOGE("invalid arg size %d", size);
        return nullptr;
    }
    auto bundle = std::make_unique<Bundle>();
    for (int i = 0; i < size; i += 2) {
        const char* key = keyValues[i];
        const char* value = keyValues[i + 1];
        const int rc = (key == nullptr || value == nullptr)
                           ? pelio::platform::BUNDLE_ERROR_INVALID_PARAMETER
                           : bundle->addStr(key, value);
        if (rc != pelio::platform::BUNDLE_ERROR_NONE) {
            LOGE("bun add err %d", rc);
            return nullptr;
        }
    }
    return bundle;
}

int insert_into_db(Bundle* request) {
    Bundle result;
    DbManager::getInstance()->plmsvc_db_process(request, &result);
    const std::string record = getValStr(&result, RECORD0);
    if (record == FAILURE) {
        LOGE("Insert failed queryresult = %s", record.c_str());
        return -1;
    }
    LOGD("Inserted Properly");
    return 0;
}

int key_is_present_in_db(const char* where, const char* table, int* present) {
    if (where == nullptr || table == nullptr || present == nullptr) {
        LOGE("bun null");
        return -1;
    }
    LOGD("where_condition [%s]", where);
    const char* const pairs[] = {OPERATION_KEY, OP_SELECT, URI_TABLE_NAME, table,
                                 WHERE,         where,     PROJECTION,     "_id"};
    std::unique_ptr<Bundle> request = get_query_bundle(pairs, 8);
    if (!request) {
        LOGE("bun null");
        return -1;
    }
    Bundle result;
    if (DbManager::getInstance()->plmsvc_db_process(request.get(), &result) != 0) {
        LOGE("plmsvc_db_process failed");
        return -1;
    }
    if (getValStr(&result, RECORD0) != SUCCESS) {
        LOGE("Query failed");
        return -1;
    }
    const int count = result.count();
    LOGD("bundle record_count = %d", count);
    if (count <= 1) {
        LOGD("Query Success but no result found");
        *present = 0;
    } else {
        LOGD("Provider is present in %s Table", table);
        *present = 1;
    }
    return 0;
}

int master_set_string(const char* key, const char* value) {
    if (key == nullptr) {
        LOGE("key is NULL");
        return -1;
    }
    if (value == nullptr) {
        LOGE("value is NULL");
        return -1;
    }
    LOGD("master_set_string starts");
    const std::string condition = std::string("key = '") + key + "'";
    int present = 0;
    int rc = key_is_present_in_db(condition.c_str(), "master", &present);
    if (rc != 0) {
        LOGE("key_is_present_in_db failed retval = %d", rc);
        return rc;
    }
    std::unique_ptr<Bundle> request;
    if (present) {
        LOGD("Update the %s with %s", key, value);
        const char* const pairs[] = {OPERATION_KEY, OP_UPDATE, URI_TABLE_NAME, "master",
                                     COLUMN_COUNT,  "1",       "COL1",         "value",
                                     "value",       value,     WHERE,          condition.c_str()};
        request = get_query_bundle(pairs, 12);
    } else {
        const char* const pairs[] = {
            OPERATION_KEY, OP_INSERT, URI_TABLE_NAME, "master", COLUMN_COUNT, "2",  "COL1", "key",
            "key",         key,       "COL2",         "value",  "value",      value};
        request = get_query_bundle(pairs, 14);
    }
    if (!request) {
        LOGE("query bun null");
        return -1;
    }
    rc = insert_into_db(request.get());
    if (rc != 0)
        LOGE("insert_into_db failed retval = %d", rc);
    return rc;
}

int master_get_string(const char* key, char** value) {
    if (key == nullptr || value == nullptr) {
        LOGE("key is NULL");
        return -1;
    }
    const std::string condition = std::string("key = '") + key + "'";
    const char* const pairs[] = {OPERATION_KEY, OP_SELECT, URI_TABLE_NAME, "master",
                                 PROJECTION,    "value",   WHERE,          condition.c_str()};
    std::unique_ptr<Bundle> request = get_query_bundle(pairs, 8);
    if (!request) {
        LOGE("query bun null");
        return -1;
    }
    Bundle result;
    if (DbManager::getInstance()->plmsvc_db_process(request.get(), &result) != 0) {
        LOGE("plmsvc_db_process failed");
        return -1;
    }
    const int count = result.count();
    if (count == 1) {
        LOGD("Query Success No result found");
        *value = nullptr;
        return 0;
    }
    if (count == 2) {
        std::vector<uint8_t> bytes;
        std::optional<Bundle> row;
        if (result.getByte(recordKey(1), bytes) == pelio::platform::BUNDLE_ERROR_NONE)
            row = Bundle::decode(bytes);
        if (!row) {
            LOGE("plmsvc_db_process failed");
            return -1;
        }
        const std::string text = getValStr(&*row, columnKey(0));
        *value = strdup(text.c_str());
        return *value != nullptr ? 0 : -1;
    }
    LOGE("Something is wrong");
    return -1;
}

std::string master_get_value(const std::string& key, bool* ok) {
    char* raw = nullptr;
    const int rc = master_get_string(key.c_str(), &raw);
    pelio::MallocPtr<char> owned(raw);
    if (ok != nullptr)
        *ok = rc == 0;
    return owned ? std::string(owned.get()) : std::string();
}
