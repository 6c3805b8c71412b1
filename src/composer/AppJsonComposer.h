// AppJsonComposer: turns the "application" shadow table into upload documents (sync item 1):
// one "application" document ("pkg_" + package name) per row that is not in step with the server
// (dirty != 4), a deletion document for a row at dirty 2, all of them in a single body whatever
// their number. Each composed id is recorded in the record's sentRows with the row's key
// ("_id" = package name) and the state the answer must still find (dirty, name, preload flag).
//
// Threads: one composer object on one thread (the sync manager's worker, under its application
// lock). The document counter is process-wide and never reset while the process lives.
// Ownership: made and destroyed by JSONComposer::makeSyncData(1); makeUploadJSON()'s record
// belongs to the caller. Errors: a failed query gives a record with its defaults (nothing sent).
#pragma once

#include <string>

#include "composer/JSONComposer.h"

class AppJsonComposer : public JSONComposer {
  public:
    static constexpr const char* kIdPrefix = "pkg_";

    AppJsonComposer() = default;
    ~AppJsonComposer() override = default;

    std::unique_ptr<SyncData> makeUploadJSON();

    // The custom id of an application: "" when not preinstalled; for a preinstalled one the
    // table's id of its package name ("" when the table has none), or, without a package name,
    // the display name + "001" in lower case without blanks.
    static std::string getCustomId(const std::string& packageName, bool preinstalled,
                                   const std::string& displayName);
    // The last "doc_number" handed out in this process.
    static int lastDocumentNumber();
};
