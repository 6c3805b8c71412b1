#include "upload/SyncOutcomeProcessor.h"

#include <cstdio>
#include <memory>

#include "PelioLog.h"
#include "SyncHandlers/BaseSyncHandler.h"
#include "database/DbManager.h"
#include "utils/BundleMacro.h"

using pelio::platform::Bundle;

namespace {

constexpr const char* kConflictReason = "Document update conflict.";
constexpr int kAudioTypeSong = 1;
constexpr int kAudioTypeArtist = 4;
constexpr int kAudioTypeAlbum = 3;

struct GObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
using ParserPtr = std::unique_ptr<JsonParser, GObjectUnref>;

std::string quoted(const char* format, const std::string& key) {
    char* text = g_strdup_printf(format, key.c_str());
    std::string result(text);
    g_free(text);
    return result;
}

std::string quotedTyped(const char* format, const std::string& key, int type) {
    char* text = g_strdup_printf(format, key.c_str(), type);
    std::string result(text);
    g_free(text);
    return result;
}

// One query bundle through the database manager; true when it ran and reported SUCCESS.
bool runRequest(Bundle& request) {
    Bundle result;
    const int rc = DbManager::getInstance()->plmsvc_db_process(&request, &result);
    return rc == 0 && getValStr(&result, bundlekeys::RECORD0) != bundlekeys::FAILURE;
}

bool deleteWhere(const std::string& table, const std::string& where) {
    Bundle request;
    request.addStr(bundlekeys::OPERATION_KEY, bundlekeys::OP_DELETE);
    request.addStr(bundlekeys::URI_TABLE_NAME, table);
    request.addStr(bundlekeys::WHERE, where);
    return runRequest(request);
}

// UPDATE of "rev_id" (and "dirty" = "4" when synced) on the rows matching where.
bool updateRevision(const std::string& table, const std::string& where, const std::string& rev,
                    bool synced) {
    Bundle request;
    request.addStr(bundlekeys::OPERATION_KEY, bundlekeys::OP_UPDATE);
    request.addStr(bundlekeys::URI_TABLE_NAME, table);
    request.addStr(bundlekeys::WHERE, where);
    request.addStr(bundlekeys::COLUMN_COUNT, synced ? "2" : "1");
    request.addStr(columnKey(1), "rev_id");
    // UPDATE values go into the SQL text verbatim: the text column carries its own quotes.
    request.addStr("rev_id", "'" + rev + "'");
    if (synced) {
        request.addStr(columnKey(2), "dirty");
        request.addStr("dirty", "4");
    }
    return runRequest(request);
}

}  // namespace

std::string SyncOutcomeProcessor::getFieldStringFromJNode(JsonNode* node, const std::string& name) {
    if (node != nullptr && JSON_NODE_HOLDS_OBJECT(node)) {
        JsonObject* object = json_node_get_object(node);
        if (json_object_has_member(object, name.c_str())) {
            JsonNode* member = json_object_get_member(object, name.c_str());
            if (member != nullptr && JSON_NODE_HOLDS_VALUE(member) &&
                json_node_get_value_type(member) == G_TYPE_STRING) {
                std::string value = json_node_get_string(member);
                LOGD("value is : [%s]", value.c_str());
                return value;
            }
        }
    }
    LOGD("In getfield no value");
    return "";
}

void SyncOutcomeProcessor::updateLocalDbNewStatus(const std::string& table, const std::string& key,
                                                  const std::string& rev) {
    if (!updateRevision(table, quoted("_id = '%s'", key), rev, false))
        LOGE("error in update");
}

void SyncOutcomeProcessor::updateLocalDbStatus(const std::string& table, const std::string& key,
                                               const std::string& rev) {
    if (!deleteWhere(table, quoted("dirty = 2 and _id = '%s'", key)))
        LOGE("error in delete");
    if (!updateRevision(table, quoted("_id = '%s'", key), rev, true))
        LOGE("error in update");
}

void SyncOutcomeProcessor::updateLocalAudioTableNewStatus(const std::string& key,
                                                          const std::string& rev, int type) {
    if (!updateRevision("audio", quotedTyped("audio_id = '%s' and type = '%d'", key, type), rev,
                        false)) {
        LOGE("error in update");
    }
}

void SyncOutcomeProcessor::updateLocalAudioTableStatus(const std::string& key,
                                                       const std::string& rev, int type) {
    if (!deleteWhere("audio",
                     quotedTyped("dirty = 2 and audio_id = '%s' and type = '%d'", key, type))) {
        LOGE("error in delete");
    }
    if (!updateRevision("audio", quotedTyped("audio_id = '%s' and type = '%d'", key, type), rev,
                        true)) {
        LOGE("error in update");
    }
}

void SyncOutcomeProcessor::updateLocalAudioPlaylistTableNewStatus(const std::string& key,
                                                                  const std::string& rev) {
    if (!updateRevision("audio_playlist", quoted("playlist_id = '%s'", key), rev, false)) {
        LOGE("error in update");
    }
}

void SyncOutcomeProcessor::updateLocalAudioPlaylistTableStatus(const std::string& key,
                                                               const std::string& rev) {
    if (!deleteWhere("audio_playlist", quoted("dirty = 2 and playlist_id = '%s'", key))) {
        LOGE("error in delete");
    }
    if (!updateRevision("audio_playlist", quoted("playlist_id = '%s'", key), rev, true)) {
        LOGE("error in update");
    }
}

void SyncOutcomeProcessor::_applyElement(JsonNode* element, Marks& marks) {
    if (element == nullptr || !JSON_NODE_HOLDS_OBJECT(element))
        return;
    JsonObject* object = json_node_get_object(element);

    const std::string id = getFieldStringFromJNode(element, "id");
    std::string rev;
    bool conflict = false;
    if (json_object_has_member(object, "error")) {
        const std::string reason = getFieldStringFromJNode(element, "reason");
        if (reason != kConflictReason || !json_object_has_member(object, "rev"))
            return;
        rev = getFieldStringFromJNode(element, "rev");
        conflict = true;
    } else {
        rev = getFieldStringFromJNode(element, "rev");
    }

    const std::string decoded = BaseSyncHandler::decodeDocumentId(id);
    if (id.find("con_") != std::string::npos) {
        if (conflict) {
            LOGD("Doc update conflict for contact id %s", decoded.c_str());
            marks.contactsConflict = true;
            updateLocalDbNewStatus("contacts", decoded, rev);
        } else {
            updateLocalDbStatus("contacts", decoded, rev);
        }
    } else if (id.find("pkg_") != std::string::npos) {
        const std::string key = id.size() > 4 ? id.substr(4) : std::string();
        if (conflict) {
            marks.applicationsFailed = true;
            updateLocalDbNewStatus("application", key, rev);
        } else {
            updateLocalDbStatus("application", key, rev);
        }
    } else if (id.find("aud_") != std::string::npos) {
        if (conflict) {
            marks.mediaFailed = true;
            updateLocalAudioTableNewStatus(decoded, rev, kAudioTypeSong);
        } else {
            // Song documents carry the song's media id ("audio_id"), not the row's _id.
            updateLocalAudioTableStatus(decoded, rev, kAudioTypeSong);
        }
    } else if (id.find("apl_") != std::string::npos) {
        if (conflict) {
            updateLocalAudioPlaylistTableNewStatus(decoded, rev);
        } else {
            updateLocalAudioPlaylistTableStatus(decoded, rev);
        }
    } else if (id.find("aat_") != std::string::npos) {
        if (conflict) {
            updateLocalAudioTableNewStatus(decoded, rev, kAudioTypeArtist);
        } else {
            updateLocalAudioTableStatus(decoded, rev, kAudioTypeArtist);
        }
    } else if (id.find("aab_") != std::string::npos) {
        if (conflict) {
            updateLocalAudioTableNewStatus(decoded, rev, kAudioTypeAlbum);
        } else {
            updateLocalAudioTableStatus(decoded, rev, kAudioTypeAlbum);
        }
    } else if (id.find("clg_") != std::string::npos) {
        updateLocalDbStatus("call_logs", decoded, rev);
    }
}

bool SyncOutcomeProcessor::applyResponse(const std::string& jsonResponse, Marks& marks) {
    ParserPtr parser(json_parser_new());
    GError* error = nullptr;
    bool walked = false;
    if (!json_parser_load_from_data(parser.get(), jsonResponse.c_str(),
                                    static_cast<gssize>(jsonResponse.size()), &error)) {
        LOGE("json parse failed [%s]", error != nullptr ? error->message : "");
        g_clear_error(&error);
    } else {
        JsonNode* root = json_parser_get_root(parser.get());
        if (root != nullptr && JSON_NODE_HOLDS_ARRAY(root)) {
            DbManager::getInstance();
            JsonArray* array = json_node_get_array(root);
            const guint length = json_array_get_length(array);
            for (guint i = 0; i < length; ++i) {
                _applyElement(json_array_get_element(array, i), marks);
            }
            walked = true;
        }
    }
    parser.reset();
    LOGD("clearing json parser");
    return walked;
}

void SyncOutcomeProcessor::update_dirtyflag(const char* table) {
    if (table == nullptr || table[0] == '\0') {
        LOGE("Invalid table name");
        return;
    }
    if (!deleteWhere(table, "dirty = 3"))
        LOGE("error in delete");
    Bundle request;
    request.addStr(bundlekeys::OPERATION_KEY, bundlekeys::OP_UPDATE);
    request.addStr(bundlekeys::URI_TABLE_NAME, table);
    request.addStr(bundlekeys::WHERE, "dirty != 4");
    request.addStr(bundlekeys::COLUMN_COUNT, "1");
    request.addStr(columnKey(1), "dirty");
    request.addStr("dirty", "4");
    if (!runRequest(request))
        LOGE("error in update");
}

void SyncOutcomeProcessor::update_dirty_flags(int item) {
    LOGD("syncItem[%d]", item);
    switch (item) {
        case 1:
            update_dirtyflag("application");
            break;
        case 5:
            update_dirtyflag("bookmarks");
            break;
        case 3:
            update_dirtyflag("contacts");
            break;
        case 2:
            update_dirtyflag("audio");
            break;
        default:
            break;
    }
}
