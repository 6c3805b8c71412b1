#include "SyncHandlers/AppSyncHandler.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include <pelio/platform/PackageManager.h>
#include <pelio/platform/SqliteStatement.h>

#include "PLMConstants.h"
#include "PelioLog.h"
#include "SyncHandlers/HandlerInstance.h"
#include "composer/AppJsonComposer.h"
#include "database/DbManager.h"
#include "database/KeysetReader.h"
#include "upload/PLMSyncMasterTable.h"
#include "utils/BundleMacro.h"
#include "utils/PLMUtils.h"

using pelio::platform::Bundle;
namespace pp = pelio::platform;

namespace {

int parseColumn(const std::string& text, int fallback) {
    if (text.empty() || text == "NULL")
        return fallback;
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

// A column text; a NULL column reads as "".
std::string textColumn(const Bundle& row, int n) {
    std::string text = getValStr(&row, columnKey(n));
    return text == "NULL" ? std::string() : text;
}

AppSyncInfo* lookup(GHashTable* map, const std::string& id) {
    return static_cast<AppSyncInfo*>(g_hash_table_lookup(map, id.c_str()));
}

void put(GHashTable* map, AppSyncInfo* info) {
    g_hash_table_replace(map, g_strdup(info->id.c_str()), info);
}

bool sameTexts(const AppSyncInfo& a, const AppSyncInfo& b) {
    return a.name == b.name && a.version == b.version && a.preInstalled == b.preInstalled;
}

std::unique_ptr<AppSyncInfo> fromPlatform(const pp::AppInfo& app) {
    auto info = std::make_unique<AppSyncInfo>();
    info->id = app.packageName;
    info->package = app.packageName;
    info->name = app.label;
    info->version = app.version;
    info->preInstalled = app.preloaded ? 1 : 0;
    info->customId = AppJsonComposer::getCustomId(info->id, info->preInstalled == 1, info->name);
    info->present = true;
    return info;
}

// The device locale as the application information wants it ("en_US", no encoding).
std::string deviceLocale() {
    std::string locale = getLocalePreference();
    const size_t dot = locale.find(".UTF-8");
    if (dot != std::string::npos)
        locale.erase(dot, 6);
    for (char& c : locale)
        if (c == '-')
            c = '_';
    return locale;
}

// The writes of one collection into the shadow table, prepared once on the transaction's
// connection. Texts are bound, so no quoting is needed; a new row leaves empty texts NULL, an
// updated one takes them as they are.
class ShadowStatements {
  public:
    explicit ShadowStatements(sqlite3* db)
        : remove_(db, "DELETE FROM application WHERE _id = ?"),
          markDeleted_(db, "UPDATE application SET dirty = ? WHERE _id = ?"),
          insert_(db,
                  "INSERT INTO application (_id, version, device_mode, name, custom_id, package, "
                  "pre_installed, dirty) VALUES (?, ?, 0, ?, ?, ?, ?, ?)"),
          update_(db,
                  "UPDATE application SET version = ?2, name = ?3, custom_id = ?4, package = ?5, "
                  "pre_installed = ?6, dirty = ?7 WHERE _id = ?1") {}

    // False when the statement failed; true also when nothing was to be written.
    bool write(const AppSyncInfo& info) {
        if (!info.present) {
            // Gone from the device.
            if (info.revId.empty()) {
                LOGD("Delete Case: never uploaded, removed locally");
                return remove_.bind(1, info.id).runBound();
            }
            if (info.dirty == plm::DIRTY_DELETED)
                return true;
            LOGD("Delete Case");
            return markDeleted_.bind(1, static_cast<int>(plm::DIRTY_DELETED))
                .bind(2, info.id)
                .runBound();
        }
        // The insert and the update take the same numbered values.
        pp::SqliteStatement& st = info.stored ? update_ : insert_;
        auto text = [&](int index, const std::string& value) {
            if (info.stored)
                st.bind(index, value);
            else
                st.bindOrNull(index, value);
        };
        text(2, info.version);
        text(3, info.name);
        text(4, info.customId);
        text(5, info.package);
        return st.bind(1, info.id).bind(6, info.preInstalled).bind(7, info.dirty).runBound();
    }

  private:
    pp::SqliteStatement remove_;
    pp::SqliteStatement markDeleted_;
    pp::SqliteStatement insert_;
    pp::SqliteStatement update_;
};

}  // namespace

void free_app_info(gpointer info) {
    if (info == nullptr) {
        LOGE("Info is already NULL");
        return;
    }
    delete static_cast<AppSyncInfo*>(info);
}

AppSyncHandler* AppSyncHandler::getInstance() {
    return HandlerInstance<AppSyncHandler>::get();
}

void AppSyncHandler::deleteInstance() {
    HandlerInstance<AppSyncHandler>::destroy();
}

AppSyncHandler::AppSyncHandler(SyncHandlerHost* host) : BaseSyncHandler(host) {
    mDomainId = plm::SYNC_ITEM_APPLICATION;
}

AppSyncHandler::~AppSyncHandler() {
    stopWorker();
}

int AppSyncHandler::forEachApplicationRow(const std::string& projection, const std::string& where,
                                          const std::function<void(const Bundle&)>& onRow) {
    if (!KeysetReader::readAll(kTable, projection, where, kReadPageRows, onRow)) {
        LOGE("plmsvc_db_process FAIL");
        return -1;
    }
    return 0;
}

int AppSyncHandler::syncData(int syncType) {
    char* raw = nullptr;
    const int retMaster = master_get_string(plm::APP_SYNC_STATUS_P, &raw);
    pelio::MallocPtr<char> status(raw);
    LOGD("syncData called - retMaster[%d]", retMaster);
    if (status) {
        LOGD("status[%s]", status.get());
    } else {
        LOGD("status NULL");
    }
    const bool inStep = status && std::strcmp(status.get(), plm::STATUS_SYNCED) == 0;
    if (!inStep) {
        LOGD("status is false hence trigger sync");
    }
    // The service does not end while this collection runs (the exit check waits for it), so the
    // status is left as it is until there is something to send.
    if (syncType == plm::SYNC_TYPE_FORCE)
        markAllForResend(kTable);

    SyncMap map(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, free_app_info));
    // Rows still waiting from an earlier sync (or marked by a forced one) go up too: the read
    // sets mPending for them.
    mPending = false;
    if (_readStoredApps(map.get()) != 0) {
        LOGE("syncData failed for Applications");
        return 1;
    }
    LOGD("inProcessing");
    _collectInstalledApps(map.get());
    const int ret = _writeNewSyncData(map.get());
    // Nothing to send and the domain already in step: no upload, the status stays as it was.
    // A domain waiting or failed goes on to the composer, which settles it.
    if (ret == 2 || (ret == 0 && !mPending && inStep))
        return 2;
    return ret;
}

int AppSyncHandler::_readStoredApps(GHashTable* map) {
    int total = 0;
    const int ret = forEachApplicationRow(
        "_id, rev_id, version, name, custom_id, package, pre_installed, dirty", "",
        [&](const Bundle& row) {
            auto* info = new AppSyncInfo;
            info->id = textColumn(row, 1);
            info->revId = textColumn(row, 2);
            info->version = textColumn(row, 3);
            info->name = textColumn(row, 4);
            info->customId = textColumn(row, 5);
            info->package = textColumn(row, 6);
            info->preInstalled = parseColumn(textColumn(row, 7), 0);
            info->dirty = parseColumn(textColumn(row, 8), plm::DIRTY_INSERTED);
            info->stored = true;
            mPending = mPending || info->dirty != plm::DIRTY_SYNCED;
            ++total;
            put(map, info);  // a repeated _id keeps the latest row's values
        });
    if (ret == 0 && total == 0)
        LOGD("no information present");
    return ret;
}

void AppSyncHandler::_collectInstalledApps(GHashTable* map) {
    const std::string locale = deviceLocale();
    // One listing of every entry: the visible ones are collected, and the two every device has
    // are answered from it even when they are not shown.
    std::vector<pp::AppInfo> apps;
    const int ret = pp::packageManager().listApplications(pp::AppDisplayFilter::Any, locale, apps);
    const bool listed = ret == pp::PACKAGE_MANAGER_ERROR_NONE;
    if (!listed)
        LOGE("app_info_foreach_app failed[%d]", ret);

    std::deque<std::unique_ptr<AppSyncInfo>> queue;
    for (const auto& app : apps) {
        if (!app.noDisplay)
            queue.push_back(fromPlatform(app));
    }

    struct Required {
        const char* package;
        const char* fallbackName;
        const char* adding;
        const char* present;
    };
    const Required required[] = {
        {kContactsApp, "Contacts", "adding app info in queue", "queue already has conatct info"},
        {kTaskManagerApp, "Task manager", "adding task manager info in queue",
         "queue already has task manager info"},
    };
    for (const Required& r : required) {
        bool found = false;
        for (const auto& info : queue)
            found = found || info->id == r.package;
        if (found) {
            LOGD("%s", r.present);
            continue;
        }
        LOGD("%s", r.adding);
        pp::AppInfo app;
        const auto entry = std::find_if(apps.begin(), apps.end(), [&](const pp::AppInfo& a) {
            return a.packageName == r.package;
        });
        if (entry != apps.end()) {
            app = *entry;
        } else if (listed || pp::packageManager().getApplication(r.package, locale, app) !=
                                 pp::PACKAGE_MANAGER_ERROR_NONE) {
            // Not installed as an entry here (asked for alone when the listing failed): it is
            // part of every device all the same.
            app.packageName = r.package;
            app.label = r.fallbackName;
            app.preloaded = true;
        }
        queue.push_back(fromPlatform(app));
    }

    while (!queue.empty()) {
        std::unique_ptr<AppSyncInfo> fresh = std::move(queue.front());
        queue.pop_front();
        _applyRecord(map, std::move(fresh));
    }
}

void AppSyncHandler::_applyRecord(GHashTable* map, std::unique_ptr<AppSyncInfo> fresh) {
    AppSyncInfo* stored = lookup(map, fresh->id);
    if (stored == nullptr) {
        LOGD("Insert Case");
        fresh->dirty = plm::DIRTY_INSERTED;
        put(map, fresh.release());
        return;
    }
    if (sameTexts(*stored, *fresh) && stored->dirty != plm::DIRTY_DELETED) {
        LOGD("In ignore on no change case");
        mPending = mPending || stored->dirty != plm::DIRTY_SYNCED;
        g_hash_table_remove(map, fresh->id.c_str());
        return;
    }
    LOGD("Update Case");
    fresh->stored = true;
    fresh->revId = stored->revId;
    // A document the server has is updated; one it never got stays a pending insert.
    fresh->dirty = fresh->revId.empty() ? plm::DIRTY_INSERTED : plm::DIRTY_UPDATED;
    put(map, fresh.release());
}

int AppSyncHandler::_writeNewSyncData(GHashTable* map) {
    bool interrupted = false;
    const bool written = db()->runInTransaction([&](sqlite3* db) {
        ShadowStatements statements(db);
        interrupted = !visitUnlessInterrupted(map, [&](gpointer value) {
            const auto& info = *static_cast<const AppSyncInfo*>(value);
            // Every write below but a local removal leaves a document to send.
            mPending = mPending || info.present || !info.revId.empty();
            if (!statements.write(info))
                LOGE("query failed");
        });
        return !interrupted;  // rolled back when interrupted
    });
    if (interrupted) {
        LOGD("forced sync pending, write rolled back");  // not committed
        return 2;
    }
    if (!written)
        LOGE("query failed");
    return 0;
}
