// Shared set-up of the sync unit tests: the store fixture, a throw-away home with contacts on
// vCard files, a recording sync-manager host and parsed upload bodies.
#pragma once

#include <gtest/gtest.h>
#include <json-glib/json-glib.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <pelio/platform/Contacts.h>

#include "SyncHandlers/SyncHandlerHost.h"
#include "support/Eventually.h"
#include "support/StoreFixture.h"
#include "support/TempHome.h"
#include "support/VCardBook.h"
#include "upload/SyncData.h"

namespace pelio::test {

// Records what a domain handler reports to the sync manager.
class RecordingHost : public SyncHandlerHost {
  public:
    std::mutex* getDomainLock(int item) override {
        return item == 1 || item == 2 || item == 3 || item == 11 ? &domainLock : nullptr;
    }
    void set_sync_status(const char* key, const char* value) override {
        std::lock_guard<std::mutex> guard(mutex_);
        statuses.emplace_back(key, value);
    }
    void addSyncItemToQueue(int item) override {
        std::lock_guard<std::mutex> guard(mutex_);
        queued.push_back(item);
    }
    std::vector<std::pair<std::string, std::string>> statusCalls() {
        std::lock_guard<std::mutex> guard(mutex_);
        return statuses;
    }
    std::vector<int> queuedItems() {
        std::lock_guard<std::mutex> guard(mutex_);
        return queued;
    }

    std::mutex domainLock;

  private:
    std::mutex mutex_;
    std::vector<std::pair<std::string, std::string>> statuses;
    std::vector<int> queued;
};

// One upload body, parsed: its documents in order and by "_id".
class Body {
  public:
    explicit Body(const std::string& text) : parser_(json_parser_new()) {
        EXPECT_TRUE(json_parser_load_from_data(parser_, text.c_str(), -1, nullptr)) << text;
        JsonNode* root = json_parser_get_root(parser_);
        docs = root ? json_object_get_array_member(json_node_get_object(root), "docs") : nullptr;
    }
    ~Body() { g_object_unref(parser_); }
    Body(const Body&) = delete;
    Body& operator=(const Body&) = delete;

    guint size() const { return docs ? json_array_get_length(docs) : 0; }
    JsonObject* at(guint i) const { return json_array_get_object_element(docs, i); }
    JsonObject* doc(const std::string& id) const {
        for (guint i = 0; i < size(); ++i) {
            if (id == json_object_get_string_member(at(i), "_id"))
                return at(i);
        }
        ADD_FAILURE() << "no document " << id;
        return nullptr;
    }

    JsonArray* docs = nullptr;

  private:
    JsonParser* parser_;
};

// A string member of object, "<absent>" when it has none.
inline std::string str(JsonObject* object, const char* key) {
    return object && json_object_has_member(object, key)
               ? json_object_get_string_member(object, key)
               : "<absent>";
}
inline JsonObject* meta(JsonObject* doc) {
    return json_object_get_object_member(doc, "meta_data");
}
// The counts of a composed upload: "inserted/updated/deleted".
inline std::string counts(const SyncData& d) {
    return std::to_string(d.insertedCount) + "/" + std::to_string(d.updatedCount) + "/" +
           std::to_string(d.deletedCount);
}

class SyncStoreTest : public StoreFixture {
  protected:
    // id -> dirty values of its contacts rows, in row order.
    static std::map<std::string, std::vector<int>> dirtyById() {
        std::map<std::string, std::vector<int>> out;
        for (const auto& row : query("SELECT _id || '|' || dirty FROM contacts ORDER BY rowid")) {
            const auto bar = row.find('|');
            out[row.substr(0, bar)].push_back(std::stoi(row.substr(bar + 1)));
        }
        return out;
    }

    TempHome home_;
    VCardBook contacts_;
};

}  // namespace pelio::test
