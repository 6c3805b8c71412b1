#include "composer/AppJsonComposer.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "PLMConstants.h"
#include "PelioLog.h"
#include "SyncHandlers/AppSyncHandler.h"
#include "composer/JsonTextWriter.h"
#include "utils/BundleMacro.h"

using pelio::platform::Bundle;

namespace {

std::atomic<int> gAppDocNumber{0};

// Package name -> custom id of the device's own applications; compared in this order.
constexpr std::pair<const char*, const char*> kCustomIds[] = {
    {"com.quorvin.alarm", "alarm001"},
    {"com.quorvin.clocksetting", "settings001"},
    {"com.quorvin.maps", "maps001"},
    {"com.quorvin.message", "messaging001"},
    {"com.quorvin.fitlog", "fitlog001"},
    {"com.quorvin.stopwatch-xq1", "stopwatch001"},
    {"com.quorvin.timer-xq1", "timer001"},
    {"com.quorvin.w-calendar2", "kalendo001"},
    {"com.quorvin.w-contacts2", "contacts001"},
    {"com.quorvin.w-gallery", "gallery001"},
    {"com.quorvin.w-logs2", "phone001"},
    {"com.quorvin.w-music-player", "music001"},
    {"com.quorvin.weather", "weather001"},
    {"com.quorvin.wemail", "email001"},
    {"com.quorvin.wlocate", "locatephone001"},
    {"com.quorvin.voicememo-q1", "voicememo001"},
};

// One selected row.
struct AppRow {
    std::string package;
    std::string name;
    std::string preInstalledText;
    std::string revision;
    int dirty = 0;
};

std::string nullAsEmpty(std::string text) {
    return text == "NULL" ? std::string() : text;
}

}  // namespace

int AppJsonComposer::lastDocumentNumber() {
    return gAppDocNumber.load();
}

std::string AppJsonComposer::getCustomId(const std::string& packageName, bool preinstalled,
                                         const std::string& displayName) {
    if (!preinstalled)
        return "";
    if (!packageName.empty()) {
        for (const auto& [package, customId] : kCustomIds) {
            if (packageName == package)
                return customId;
        }
        return "";
    }
    std::string id;
    for (char c : displayName + "001") {
        if (c != ' ')
            id += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return id;
}

std::unique_ptr<SyncData> AppJsonComposer::makeUploadJSON() {
    char projection[128];
    std::snprintf(projection, sizeof(projection), " %s, %s, %s,%s, %s, %s, %s", "_id", "version",
                  "package", "name", "pre_installed", "rev_id", "dirty");
    std::vector<AppRow> rows;
    AppSyncHandler::forEachApplicationRow(projection, plm::NOT_SYNCED, [&](const Bundle& row) {
        AppRow r;
        r.package = nullAsEmpty(getValStr(&row, columnKey(1)));
        r.name = nullAsEmpty(getValStr(&row, columnKey(4)));
        r.preInstalledText = getValStr(&row, columnKey(5));
        r.revision = nullAsEmpty(getValStr(&row, columnKey(6)));
        r.dirty = static_cast<int>(std::strtol(getValStr(&row, columnKey(7)).c_str(), nullptr, 10));
        rows.push_back(std::move(r));
    });
    if (rows.empty())
        LOGD("no information present");

    auto result = std::make_unique<SyncData>();
    // The documents are written as text: a JSON-GLib tree of each one would cost several times
    // more to build, serialise and free.
    JsonTextWriter body;
    _openBodyText(body);
    int inserted = 0, deleted = 0, updated = 0;
    for (const AppRow& row : rows) {
        const std::string id = kIdPrefix + row.package;
        SentRow sent;
        sent.table = AppSyncHandler::kTable;
        sent.key = {{"_id", row.package}};
        sent.state = {{"dirty", std::to_string(row.dirty)}};
        if (row.dirty == plm::DIRTY_DELETED) {
            _writeDeletedText(body, id, row.revision);
            (*result->sentRows)[id] = std::move(sent);
            ++deleted;
            continue;
        }
        const bool preinstalled = std::strtol(row.preInstalledText.c_str(), nullptr, 10) == 1;
        _beginDocumentText(body, id, "application", ++gAppDocNumber);
        body.beginObject(plm::DOC_META_DATA);
        body.add("name", row.name);
        body.add("preinstalled", preinstalled);
        body.add("packagename", row.package);
        body.add("customid", getCustomId(row.package, preinstalled, row.name));
        body.endObject();
        // An insert carries no revision: the server creates or replaces the document, whether it
        // has it (a forced sync sends everything again) or not.
        if (row.dirty == plm::DIRTY_UPDATED) {
            body.add(plm::DOC_REV, row.revision);
            ++updated;
        } else {
            ++inserted;
        }
        body.endObject();
        sent.state.emplace_back("name", row.name);
        sent.state.emplace_back("pre_installed", row.preInstalledText);
        (*result->sentRows)[id] = std::move(sent);
    }

    if (inserted > 0 || deleted > 0 || updated != 0) {
        result->itemType = plm::SYNC_ITEM_APPLICATION;
        result->insertedCount = inserted;
        result->deletedCount = deleted;
        result->updatedCount = updated;
        _emitBodyText(_closeBodyText(body), *result);
    } else {
        result->sentRows->clear();
    }
    return result;
}
