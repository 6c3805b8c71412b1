#include "composer/JSONComposer.h"

#include <glib.h>

#include <cstdint>
#include <ctime>
#include <stdexcept>

#include "PLMConstants.h"
#include "PelioLog.h"
#include "composer/AppJsonComposer.h"
#include "composer/ContactsJsonComposer.h"
#include "composer/MediaJsonComposer.h"

std::unique_ptr<SyncData> JSONComposer::makeSyncData(int item) {
    return makeSyncData(item, nullptr);
}

std::unique_ptr<SyncData> JSONComposer::makeSyncData(int item, BodySink sink) {
    switch (item) {
        case plm::SYNC_ITEM_CONTACTS: {
            try {
                auto contacts = std::make_unique<ContactsJsonComposer>();
                contacts->setBodySink(std::move(sink));
                auto result = contacts->makeUploadJSON();
                contacts.reset();
                return result;
            } catch (const std::logic_error& e) {
                // A document id that does not fit its fixed width aborts the composition.
                LOGE("composition of item[%d] aborted: %s", item, e.what());
            }
            break;
        }
        case plm::SYNC_ITEM_APPLICATION: {
            AppJsonComposer apps;
            apps.setBodySink(std::move(sink));
            return apps.makeUploadJSON();
        }
        case plm::SYNC_ITEM_MEDIA: {
            try {
                MediaJsonComposer media;
                media.setBodySink(std::move(sink));
                return media.makeUploadJSON();
            } catch (const std::logic_error& e) {
                LOGE("composition of item[%d] aborted: %s", item, e.what());
            }
            break;
        }
        default:
            // Applications have no composer in this build; other items never have one.
            break;
    }
    LOGD("no composer for item[%d]", item);
    auto result = std::make_unique<SyncData>();
    result->itemType = item;
    result->insertedCount = -1;
    result->deletedCount = -1;
    result->updatedCount = -1;
    return result;
}

bool JSONComposer::_emitBodyText(std::string text, SyncData& record) {
    if (!mSink) {
        record.documents.push_back(std::move(text));
        return true;
    }
    if (mSink(std::move(text), record.sentRows))
        return true;
    LOGE("upload stopped, the rows not yet composed are left for the next sync");
    record.complete = false;
    return false;
}

void JSONComposer::_openBodyText(JsonTextWriter& body) {
    body.beginObject();
    body.beginArray(plm::DOC_DOCS);
}

std::string JSONComposer::_closeBodyText(JsonTextWriter& body) {
    body.endArray();
    body.endObject();
    return body.take();
}

void JSONComposer::_beginDocumentText(JsonTextWriter& body, const std::string& id, const char* type,
                                      int docNumber) {
    body.beginObject();
    body.add(plm::DOC_VERSION, plm::DOC_VERSION_VALUE);
    body.add(plm::DOC_ID, id);
    body.add(plm::DOC_TYPE, type);
    body.add(plm::DOC_NUMBER, static_cast<long long>(docNumber));
    body.addDouble(plm::DOC_TIMESTAMP, getCurrentTimeMillis());
    body.add(plm::DOC_TIMESTAMP_GMT, getTimestampString());
    body.add(plm::DOC_DEVICE, plm::DOC_DEVICE_VALUE);
}

void JSONComposer::_writeDeletedText(JsonTextWriter& body, const std::string& id,
                                     const std::string& rev) {
    body.beginObject();
    body.add(plm::DOC_ID, id.c_str());
    body.add(plm::DOC_REV, rev.c_str());
    body.add(plm::DOC_DELETED, true);
    body.endObject();
}

JsonObjectPtr JSONComposer::makeDeletedDocument(const std::string& id, const std::string& rev) {
    JsonObjectPtr doc(json_object_new());
    json_object_set_string_member(doc.get(), plm::DOC_ID, id.c_str());
    json_object_set_string_member(doc.get(), plm::DOC_REV, rev.c_str());
    json_object_set_boolean_member(doc.get(), plm::DOC_DELETED, TRUE);
    return doc;
}

std::string JSONComposer::jsonToString(JsonObject* root) {
    LOGD("start");
    g_autoptr(JsonGenerator) generator = json_generator_new();
    JsonNodePtr node(json_node_new(JSON_NODE_OBJECT));
    json_node_set_object(node.get(), root);  // the node takes its own reference
    json_generator_set_root(generator, node.get());
    g_autofree gchar* text = json_generator_to_data(generator, nullptr);
    std::string result = text != nullptr ? text : "";
    LOGD("End");
    return result;
}

std::string JSONComposer::getTimestampString() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char buffer[20];
    std::strftime(buffer, sizeof(buffer), "%Y-%m-%d %H:%M:%S", &local);
    return buffer;
}

double JSONComposer::getCurrentTimeMillis() {
    const int64_t micros = g_get_real_time();
    const int64_t millis = (micros / 1000000) * 1000 + (micros % 1000000) / 1000;
    return static_cast<double>(millis);
}
