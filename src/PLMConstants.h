// The service's shared vocabulary: sync items, trigger codes, status values, preference keys,
// control-request extras, upload protocol names, document envelope names, locales and hosts.
// Header-only; every name here is the text the service, the voice app and the server exchange.
#pragma once

#include <array>
#include <string>

#include "database/DirtyFlag.h"

namespace plm {

// Sync items (domains).
inline constexpr int SYNC_ITEM_APPLICATION = 1;
inline constexpr int SYNC_ITEM_MEDIA = 2;
inline constexpr int SYNC_ITEM_CONTACTS = 3;
inline constexpr int SYNC_ITEM_BOOKMARKS = 5;
inline constexpr int SYNC_ITEM_FOURTH_DOMAIN = 11;  // a further domain with a lock of its own
inline constexpr int SYNC_ITEM_WAKEUP = 12;         // dump file names only

// Sync trigger codes.
inline constexpr int SYNC_TYPE_DIFF = 98;
inline constexpr int SYNC_TYPE_FORCE = 99;

// Domain status values (master table).
inline constexpr const char* STATUS_WAITING = "0";
inline constexpr const char* STATUS_FAILED = "1";
inline constexpr const char* STATUS_SYNCED = "2";

// Master table keys.
inline constexpr const char* ALL_SYNC_STATUS_P = "ALL_SYNC_STATUS_P";
inline constexpr const char* CONTACTS_SYNC_STATUS_P = "CONTACTS_SYNC_STATUS_P";
inline constexpr const char* APP_SYNC_STATUS_P = "APP_SYNC_STATUS_P";
inline constexpr const char* MEDIA_SYNC_STATUS_P = "MEDIA_SYNC_STATUS_P";
inline constexpr const char* BOOKMARKS_SYNC_STATUS_P = "BOOKMARKS_SYNC_STATUS_P";
inline constexpr const char* PLM_SYNC_DEVICE_ID = "PLM_SYNC_DEVICE_ID";

// The status key of a sync item, or null for the items without one.
constexpr const char* statusKeyOf(int item) {
    switch (item) {
        case SYNC_ITEM_APPLICATION:
            return APP_SYNC_STATUS_P;
        case SYNC_ITEM_MEDIA:
            return MEDIA_SYNC_STATUS_P;
        case SYNC_ITEM_CONTACTS:
            return CONTACTS_SYNC_STATUS_P;
        case SYNC_ITEM_BOOKMARKS:
            return BOOKMARKS_SYNC_STATUS_P;
        default:
            return nullptr;
    }
}

// Sync selection names ("TYPE" values and reply keys).
inline constexpr const char* SYNC_NONE = "NONE";
inline constexpr const char* SYNC_ALL = "ALL";
inline constexpr const char* SYNC_APPLICATION = "APPLICATION";
inline constexpr const char* SYNC_CONTACT = "CONTACT";
inline constexpr const char* SYNC_MEDIA = "MEDIA";

// Preference keys.
inline constexpr const char* PREF_APP_SYNCED_PLM_ID = "app_synced_plm_id";
inline constexpr const char* PREF_CONTACT_SYNCED_PLM_ID = "contact_synced_plm_id";
inline constexpr const char* PREF_MEDIA_SYNCED_PLM_ID = "media_synced_plm_id";
inline constexpr const char* PREF_PLM_ID = "plm_id";
inline constexpr const char* PREF_CERTIFICATION_PATH = "certification_path";
inline constexpr const char* PREF_DEVICE_ID = "device_id";
inline constexpr const char* PREF_LANGUAGE = "language";
inline constexpr const char* PREF_SERVER_ADDRESS = "server_address";
inline constexpr const char* PREF_SYNC_NEED = "sync_need";
inline constexpr const char* PREF_TOS_ACCEPTED = "tos_accepted";
inline constexpr const char* PREF_CONTACTS_DB_VERSION = "ORVANE_CONATCT_DB_VERSION";
inline constexpr const char* PREF_SYNC_SYSTEM_VERSION = "umng_sync_system_version";
inline constexpr const char* PREF_SYNC_CONDITION = "umng_sync_condition";
inline constexpr const char* PREF_TRIGGER_EMBEDDED = "trigger_embedded";
inline constexpr const char* PREF_BASELINE = "baseline";

// PLMConstants keys (written by the control requests).
namespace PLMConstants {
inline constexpr const char* DEVICE_ID = "deviceId";
inline constexpr const char* LOCALE = "locale";
inline constexpr const char* SERVER_IP = "server_ip";
inline constexpr const char* PORT = "port";
inline constexpr const char* CERT_PATH = "cert_path";
inline constexpr const char* IS_FORCE = "is_force";
inline constexpr const char* CLEAR_SERVER = "clear_server";
}  // namespace PLMConstants

// Control request vocabulary.
inline constexpr const char* EXTRA_SET_IP = "SET_IP";
inline constexpr const char* EXTRA_SET_PORT = "SET_PORT";
inline constexpr const char* EXTRA_SET_CERT_PATH = "SET_CERT_PATH";
inline constexpr const char* EXTRA_SET_LOCALE = "SET_LOCALE";
inline constexpr const char* EXTRA_SET_IS_FORCE = "SET_IS_FORCE";
inline constexpr const char* EXTRA_CLEAR_SERVER = "CLEAR_SERVER";
inline constexpr const char* EXTRA_EVENT_TYPE = "EVENT_TYPE";
inline constexpr const char* EXTRA_EVENT_DATA = "EVENT_DATA";
inline constexpr const char* EXTRA_TYPE = "TYPE";
inline constexpr const char* OP_APPLICATION_TERMINATING = "APPLICATION_TERMINATING";
inline constexpr const char* OP_TRIGGER_FORCE_SYNC = "TRIGGER_FORCE_SYNC";
inline constexpr const char* OP_CHECK_STATUS = "CHECK_STATUS";
inline constexpr const char* OP_CHECK_PLM_ID = "CHECK_PLM_ID";
inline constexpr const char* OP_GET_DEVICE_ID = "GET_DEVICE_ID";
inline constexpr const char* REPLY_STATUS_RESULT = "STATUS_RESULT";
inline constexpr const char* REPLY_PLM_ID_RESULT = "PLM_ID_RESULT";

// Notifications to the voice app.
inline constexpr const char* VOICE_APP_ID = "com.quorvin.orvane-k12";
inline constexpr const char* SERVICE_APP_ID = "com.quorvin.plmsvc";
inline constexpr const char* EXTRA_SYNCED_TYPE = "SYNCED_TYPE";
inline constexpr const char* EXTRA_SYNCED_PLM_ID = "SYNCED_PLM_ID";

// Upload protocol names.
namespace UploadDataConstants {
inline constexpr const char* NAME = "UploadDataConstants";
inline constexpr const char* BULK_DOCS = "_bulk_docs";
inline constexpr const char* COOKIE = "cookie";
inline constexpr const char* DBURL = "dburl";
inline constexpr const char* PLMID = "plmid";
inline constexpr const char* POLICY = "policy";
inline constexpr const char* REASON = "reason";
inline constexpr const char* SYNCPOLICY = "syncpolicy";
inline constexpr const char* RESULT = "result";
inline constexpr const char* SUCCESS = "success";
inline constexpr const char* RESULT_13 = "13";
inline constexpr const char* RESULT_15 = "15";
inline constexpr const char* RESULT_23 = "23";
inline constexpr const char* HEADER_ACCEPT = "Accept";
inline constexpr const char* HEADER_ACCEPT_ENCODING = "Accept-Encoding";
inline constexpr const char* HEADER_CHARSET = "charset";
inline constexpr const char* HEADER_CONTENT_ENCODING = "Content-Encoding";
inline constexpr const char* HEADER_CONTENT_TYPE = "Content-Type";
inline constexpr const char* VALUE_JSON = "application/json";
inline constexpr const char* VALUE_GZIP = "gzip";
inline constexpr const char* VALUE_UTF8 = "UTF-8";
}  // namespace UploadDataConstants

// Document envelope.
inline constexpr const char* DOC_ID = "_id";
inline constexpr const char* DOC_REV = "_rev";
inline constexpr const char* DOC_DELETED = "_deleted";
inline constexpr const char* DOC_META_DATA = "meta_data";
inline constexpr const char* DOC_TIMESTAMP_GMT = "timestamp_GMT";
inline constexpr const char* DOC_TIMESTAMP = "timestamp";
inline constexpr const char* DOC_TYPE = "type";
inline constexpr const char* DOC_NUMBER = "doc_number";
inline constexpr const char* DOC_DOCS = "docs";
inline constexpr const char* DOC_DEVICE = "device";
inline constexpr const char* DOC_VERSION = "version";
inline constexpr const char* DOC_VERSION_VALUE = "0.82";
inline constexpr const char* DOC_DEVICE_VALUE = "TockaA";
inline constexpr const char* JSON_COMPOSER_TAG = "JSONComposer";

// Supported locales, in order.
inline constexpr std::array<const char*, 15> SUPPORTED_LOCALES = {
    "de-DE", "en-GB", "en-US", "es-ES", "es-US", "fr-FR", "it-IT", "pt-BR",
    "ru-RU", "ja-JP", "ko-KR", "zh-CN", "zh-HK", "zh-SG", "zh-TW"};
inline constexpr const char* DEFAULT_LOCALE = "en-US";

// Server hosts: two regions, each with an interaction server and a content server.
inline constexpr const char* HOST_US_INTERACTION = "us-interaction.plm.quorvin.com";
inline constexpr const char* HOST_US_CONTENT = "us-content.plm.quorvin.com";
inline constexpr const char* HOST_KR_INTERACTION = "kr-interaction.plm.quorvin.com";
inline constexpr const char* HOST_KR_CONTENT = "kr-content.plm.quorvin.com";
// The proxy that the paired phone link installs: marks companion mode. Never a traffic target
// of this project's tests, demos or benchmarks.
inline constexpr const char* COMPANION_PROXY_MARKER = "192.168.129.3:8080";

}  // namespace plm
