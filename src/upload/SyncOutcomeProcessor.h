// SyncOutcomeProcessor: applies the server's per-document answers of one bulk post to the local
// shadow tables, and keeps the table-wide dirty-flag reset.
//
// Answer: a JSON array of objects {"id", "rev"} or, for a refused document, {"id", "error",
// "reason"[, "rev"]}. A document id is matched by the first of the prefixes "con_", "pkg_",
// "aud_", "apl_", "aat_", "aab_", "clg_" found anywhere in it (substring search); ids with none
// are ignored. Accepted documents get the server's revision and dirty 4 (rows at dirty 2 are
// deleted); a "Document update conflict." keeps the row dirty but stores the revision and marks
// its domain (contacts, applications, songs) as failed. Other refusals leave the row alone.
//
// Thread: the sync worker (under the sync lock). Every request goes through the database
// manager's query bundles; a failing request is logged ("error in update" / "error in delete")
// and the walk goes on. Stateless apart from the marks handed in.
#pragma once

#include <json-glib/json-glib.h>

#include <string>

class SyncOutcomeProcessor {
  public:
    // Domains that had a document refused as a conflict.
    struct Marks {
        bool contactsConflict = false;
        bool applicationsFailed = false;
        bool mediaFailed = false;
    };

    // Walks one answer. False when it is not a JSON array (nothing changed then).
    static bool applyResponse(const std::string& jsonResponse, Marks& marks);

    static void updateLocalDbNewStatus(const std::string& table, const std::string& key,
                                       const std::string& rev);
    static void updateLocalDbStatus(const std::string& table, const std::string& key,
                                    const std::string& rev);
    static void updateLocalAudioTableNewStatus(const std::string& key, const std::string& rev,
                                               int type);
    static void updateLocalAudioTableStatus(const std::string& key, const std::string& rev,
                                            int type);
    static void updateLocalAudioPlaylistTableNewStatus(const std::string& key,
                                                       const std::string& rev);
    static void updateLocalAudioPlaylistTableStatus(const std::string& key, const std::string& rev);

    // The string member name of an object node, or "" when absent.
    static std::string getFieldStringFromJNode(JsonNode* node, const std::string& name);

    // Table-wide reset of a domain's dirty flags (1 "application", 5 "bookmarks", 3 "contacts",
    // 2 "audio"); no step of the sync flow uses it. update_dirtyflag deletes the rows at dirty 3
    // and sets every other row to 4.
    static void update_dirty_flags(int item);
    static void update_dirtyflag(const char* table);

  private:
    static void _applyElement(JsonNode* element, Marks& marks);
};
