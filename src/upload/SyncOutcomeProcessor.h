// SyncOutcomeProcessor: applies the server's per-document answers of one bulk post to the local
// shadow tables, and keeps the table-wide dirty-flag reset.
//
// Answer: a JSON array of objects {"id", "rev"} or, for a refused document, {"id", "error",
// "reason"[, "rev"]}. A document id is matched by the first of the prefixes "con_", "pkg_",
// "aud_", "apl_", "aat_", "aab_", "clg_" found anywhere in it (substring search), which names its
// domain; ids with none are ignored. The row an answer applies to is the one the document was
// composed from (SentRows): ids that were not sent are ignored, so a reply never reaches rows it
// did not name, and every value reaches SQL as a bound parameter.
//
// Accepted: the row gets the server's revision and dirty 4 (a confirmed deletion removes it),
// but only while it is still in the state it was sent in; a row changed since keeps its new flag
// (it goes up with the next sync) and only learns the revision. "Document update conflict." with
// a revision: the row keeps its flag, learns the revision, and its domain (contacts,
// applications, songs) is marked as conflicting. Other refusals leave the row alone. All answers
// of one reply are applied in one transaction.
//
// Thread: the sync worker (under the sync lock and the domain's lock); readAnswers any thread.
// Errors are logged
// ("error in update" / "error in delete"); a reply that is not a JSON array, or whose transaction
// fails, changes nothing and reports false.
#pragma once

#include <json-glib/json-glib.h>

#include <set>
#include <string>
#include <unordered_set>

#include "upload/SyncData.h"
#include "upload/SyncResult.h"

class SyncOutcomeProcessor {
  public:
    struct Marks {
        // Domains that had a document refused as a conflict.
        bool contactsConflict = false;
        bool applicationsFailed = false;
        bool mediaFailed = false;
        // Ids of the documents the server accepted, over all replies of one close.
        std::unordered_set<std::string> accepted;
    };

    // Reads a reply into the answers it holds for accepted and conflicting documents, in order.
    // False when it is not a JSON array. Any thread: it touches neither rows nor marks.
    static bool readAnswers(const std::string& jsonResponse, std::vector<DocAnswer>& answers);

    // Applies answers read from one reply to the rows in sent, in one transaction. False when
    // that could not be stored (nothing changed then).
    static bool applyAnswers(const std::vector<DocAnswer>& answers, const SentRows& sent,
                             Marks& marks);

    // The ids of sent that the server did not accept (the documents that must go up again).
    static std::set<std::string> unaccepted(const SentRows& sent, const Marks& marks);

    // The string member name of an object node, or "" when absent.
    static std::string getFieldStringFromJNode(JsonNode* node, const std::string& name);

    // Table-wide reset of a domain's dirty flags (1 "application", 5 "bookmarks", 3 "contacts",
    // 2 "audio"); no step of the sync flow uses it. update_dirtyflag deletes the rows at dirty 3
    // and sets every other row to 4.
    static void update_dirty_flags(int item);
    static void update_dirtyflag(const char* table);
};
