#include "upload/SyncOutcomeProcessor.h"
#include "database/DirtyFlag.h"

#include <pelio/CHandles.h>
#include <sqlite3.h>

#include <memory>
#include <unordered_map>
#include <vector>

#include "PelioLog.h"
#include "database/DbManager.h"
#include "utils/BundleMacro.h"

using pelio::platform::Bundle;

namespace {

constexpr const char* kConflictReason = "Document update conflict.";

using ParserPtr = pelio::GObjectPtr<JsonParser>;
// The statements of one transaction by SQL text: each is prepared once and reset between rows.
using StatementCache = std::unordered_map<std::string, pelio::SqliteStmt>;

// Which domain an id belongs to: the first prefix found anywhere in it, in this order.
enum class Domain { None, Contacts, Application, Song, Playlist, Artist, Album, CallLog };

Domain domainOf(const std::string& id) {
    static const std::pair<const char*, Domain> kPrefixes[] = {
        {"con_", Domain::Contacts}, {"pkg_", Domain::Application}, {"aud_", Domain::Song},
        {"apl_", Domain::Playlist}, {"aat_", Domain::Artist},      {"aab_", Domain::Album},
        {"clg_", Domain::CallLog}};
    for (const auto& [prefix, domain] : kPrefixes) {
        if (id.find(prefix) != std::string::npos)
            return domain;
    }
    return Domain::None;
}

// Table and column names come from our own composers; anything else is refused, never quoted.
bool isIdentifier(const std::string& name) {
    if (name.empty())
        return false;
    for (char c : name) {
        if (!(g_ascii_isalnum(c) || c == '_'))
            return false;
    }
    return true;
}

struct Outcome {
    const SentRow* row;
    const DocAnswer* answer;
};

// "col1 = ? AND col2 = ?" over columns; false when a name is not an identifier.
bool whereText(const SentRow::Columns& columns, std::string& text) {
    for (const auto& column : columns) {
        if (!isIdentifier(column.first))
            return false;
        if (!text.empty())
            text += " AND ";
        text += column.first + " = ?";
    }
    return true;
}

// Runs sql with the leading values then the columns' values bound in order; the number of rows
// changed, or -1 on failure.
int run(sqlite3* db, StatementCache& cache, const std::string& sql,
        const std::vector<std::string>& leading,
        const std::vector<const SentRow::Columns*>& columns) {
    pelio::SqliteStmt& statement = cache[sql];
    if (!statement) {
        sqlite3_stmt* raw = nullptr;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) {
            LOGE("prepare failed [%s]", sqlite3_errmsg(db));
            cache.erase(sql);
            return -1;
        }
        statement.reset(raw);
    }
    sqlite3_stmt* raw = statement.get();
    sqlite3_reset(raw);
    sqlite3_clear_bindings(raw);
    int index = 1;
    for (const std::string& value : leading)
        sqlite3_bind_text(raw, index++, value.c_str(), -1, SQLITE_TRANSIENT);
    for (const SentRow::Columns* list : columns) {
        for (const auto& column : *list)
            sqlite3_bind_text(raw, index++, column.second.c_str(), -1, SQLITE_TRANSIENT);
    }
    const int rc = sqlite3_step(raw);
    sqlite3_reset(raw);
    if (rc != SQLITE_DONE) {
        LOGE("step failed [%s]", sqlite3_errmsg(db));
        return -1;
    }
    return sqlite3_changes(db);
}

// Stores the revision on the row without touching its flag.
bool storeRevision(sqlite3* db, StatementCache& cache, const SentRow& row, const std::string& rev) {
    std::string where;
    if (!whereText(row.key, where))
        return false;
    return run(db, cache, "UPDATE " + row.table + " SET rev_id = ? WHERE " + where, {rev},
               {&row.key}) >= 0;
}

// An accepted document: confirmed deletion removes the row, anything else is marked in step,
// both only while the row is as it was sent. A row changed since only learns the revision.
bool applyAccepted(sqlite3* db, StatementCache& cache, const Outcome& outcome) {
    const SentRow& row = *outcome.row;
    std::string where;
    if (!whereText(row.key, where) || !whereText(row.state, where))
        return false;
    int changed = 0;
    if (row.deletion()) {
        changed = run(db, cache, "DELETE FROM " + row.table + " WHERE " + where, {},
                      {&row.key, &row.state});
        if (changed < 0) {
            LOGE("error in delete");
            return false;
        }
    } else {
        changed = run(db, cache,
                      "UPDATE " + row.table + " SET rev_id = ?, dirty = " +
                          plm::dirtyText(plm::DIRTY_SYNCED) + " WHERE " + where,
                      {outcome.answer->rev}, {&row.key, &row.state});
        if (changed < 0) {
            LOGE("error in update");
            return false;
        }
    }
    if (changed == 0) {
        LOGD("[%s] changed since it was sent, kept for the next sync", outcome.answer->id.c_str());
        if (!storeRevision(db, cache, row, outcome.answer->rev)) {
            LOGE("error in update");
            return false;
        }
    }
    return true;
}

// One reply's element, read into an answer; false when it is skipped (not an object, or refused
// for another reason than a conflict with a known revision).
bool readElement(JsonNode* element, DocAnswer& answer) {
    if (element == nullptr || !JSON_NODE_HOLDS_OBJECT(element))
        return false;
    JsonObject* object = json_node_get_object(element);
    answer.id = SyncOutcomeProcessor::getFieldStringFromJNode(element, "id");
    answer.conflict = false;
    if (json_object_has_member(object, "error")) {
        const std::string reason = SyncOutcomeProcessor::getFieldStringFromJNode(element, "reason");
        if (reason != kConflictReason || !json_object_has_member(object, "rev"))
            return false;
        answer.conflict = true;
    }
    answer.rev = SyncOutcomeProcessor::getFieldStringFromJNode(element, "rev");
    return true;
}

// The row an answer applies to, with the domain's conflict mark set; false when it names no
// domain or no document that was sent.
bool matchAnswer(const DocAnswer& answer, const SentRows& sent, SyncOutcomeProcessor::Marks& marks,
                 Outcome& outcome) {
    const Domain domain = domainOf(answer.id);
    if (domain == Domain::None)
        return false;
    const auto found = sent.find(answer.id);
    if (found == sent.end()) {
        LOGW("answer for a document that was not sent [%s], ignored", answer.id.c_str());
        return false;
    }
    outcome.row = &found->second;
    outcome.answer = &answer;
    if (answer.conflict) {
        if (domain == Domain::Contacts) {
            LOGD("Doc update conflict for contact id %s",
                 outcome.row->key.empty() ? "" : outcome.row->key.front().second.c_str());
            marks.contactsConflict = true;
        } else if (domain == Domain::Application) {
            marks.applicationsFailed = true;
        } else if (domain == Domain::Song) {
            marks.mediaFailed = true;
        }
    }
    return true;
}

// One query bundle through the database manager; true when it ran and reported SUCCESS.
bool runRequest(Bundle& request) {
    Bundle result;
    const int rc = DbManager::getInstance()->plmsvc_db_process(&request, &result);
    return rc == 0 && getValStr(&result, bundlekeys::RECORD0) != bundlekeys::FAILURE;
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

bool SyncOutcomeProcessor::readAnswers(const std::string& jsonResponse,
                                       std::vector<DocAnswer>& answers) {
    answers.clear();
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
            JsonArray* array = json_node_get_array(root);
            const guint length = json_array_get_length(array);
            answers.reserve(length);
            for (guint i = 0; i < length; ++i) {
                DocAnswer answer;
                if (readElement(json_array_get_element(array, i), answer))
                    answers.push_back(std::move(answer));
            }
            walked = true;
        }
    }
    parser.reset();
    LOGD("clearing json parser");
    return walked;
}

bool SyncOutcomeProcessor::applyAnswers(const std::vector<DocAnswer>& answers, const SentRows& sent,
                                        Marks& marks) {
    std::vector<Outcome> outcomes;
    outcomes.reserve(answers.size());
    for (const DocAnswer& answer : answers) {
        Outcome outcome{};
        if (matchAnswer(answer, sent, marks, outcome))
            outcomes.push_back(outcome);
    }
    const bool stored = DbManager::getInstance()->runInTransaction([&outcomes](sqlite3* db) {
        StatementCache cache;
        for (const Outcome& outcome : outcomes) {
            const bool ok = outcome.answer->conflict
                                ? storeRevision(db, cache, *outcome.row, outcome.answer->rev)
                                : applyAccepted(db, cache, outcome);
            if (!ok) {
                LOGE("error in update");
                return false;
            }
        }
        return true;
    });
    if (!stored) {
        LOGE("answers of this reply not stored, its rows stay dirty");
        return false;
    }
    for (const Outcome& outcome : outcomes) {
        if (!outcome.answer->conflict)
            marks.accepted.insert(outcome.answer->id);
    }
    return true;
}

std::set<std::string> SyncOutcomeProcessor::unaccepted(const SentRows& sent, const Marks& marks) {
    std::set<std::string> missing;
    for (const auto& entry : sent) {
        if (marks.accepted.count(entry.first) == 0)
            missing.insert(entry.first);
    }
    return missing;
}

void SyncOutcomeProcessor::update_dirtyflag(const char* table) {
    if (table == nullptr || table[0] == '\0') {
        LOGE("Invalid table name");
        return;
    }
    Bundle deletion;
    deletion.addStr(bundlekeys::OPERATION_KEY, bundlekeys::OP_DELETE);
    deletion.addStr(bundlekeys::URI_TABLE_NAME, table);
    // Rows at "updated" go, as this reset always did; nothing in the sync flow calls it.
    deletion.addStr(bundlekeys::WHERE,
                    std::string("dirty = ") + plm::dirtyText(plm::DIRTY_UPDATED));
    if (!runRequest(deletion))
        LOGE("error in delete");
    Bundle request;
    request.addStr(bundlekeys::OPERATION_KEY, bundlekeys::OP_UPDATE);
    request.addStr(bundlekeys::URI_TABLE_NAME, table);
    request.addStr(bundlekeys::WHERE, plm::NOT_SYNCED);
    request.addStr(bundlekeys::COLUMN_COUNT, "1");
    request.addStr(columnKey(1), "dirty");
    request.addStr("dirty", plm::dirtyText(plm::DIRTY_SYNCED));
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
