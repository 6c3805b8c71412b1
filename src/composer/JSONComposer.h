// JSONComposer: entry point of document composition. makeSyncData(item) builds the domain
// composer of the item, lets it turn the item's dirty rows into upload bodies and hands back the
// SyncData record. It also provides the parts every domain composer shares: the deletion
// document, serialisation and the two timestamps.
//
// Bodies either stay in the record (`documents`) or, with a sink, are handed to it one at a time
// as each is complete and released before the next is built, so memory does not grow with the
// number of bodies.
//
// Threads: runs on the thread that calls it (the sync manager's worker); one composer object is
// used by one thread; the sink is called on that thread. Ownership: makeSyncData()'s record and
// makeDeletedDocument()'s object belong to the caller. Errors: none of these fail; an item
// without a composer gives a record whose counts are -1 (nothing composed); a sink that returns
// false ends the composition early with the record marked incomplete.
#pragma once

#include <json-glib/json-glib.h>
#include <pelio/CHandles.h>

#include <memory>
#include <string>

#include "composer/JsonTextWriter.h"
#include "upload/SyncData.h"

// JSON-GLib references owned by std::unique_ptr.
using pelio::JsonArrayPtr;
using pelio::JsonNodePtr;
using pelio::JsonObjectPtr;

class JSONComposer {
  public:
    JSONComposer() = default;
    virtual ~JSONComposer() = default;

    // Composes one sync item (3 contacts, 2 media; other items have no composer here and give a
    // record with that item, no bodies and counts -1).
    virtual std::unique_ptr<SyncData> makeSyncData(int item);
    // The same, handing each body to sink (when set) instead of keeping it in the record.
    std::unique_ptr<SyncData> makeSyncData(int item, BodySink sink);

    // {"_id": id, "_rev": rev, "_deleted": true}, in that order; the caller owns the object.
    virtual JsonObjectPtr makeDeletedDocument(const std::string& id, const std::string& rev);

    // Compact serialisation of root; the caller keeps its own reference.
    static std::string jsonToString(JsonObject* root);
    // Local wall-clock time "%Y-%m-%d %H:%M:%S" (19 characters).
    static std::string getTimestampString();
    // Whole milliseconds since the Unix epoch, as a double.
    static double getCurrentTimeMillis();

    // Where the bodies go: the sink when one is set, else record.documents.
    void setBodySink(BodySink sink) { mSink = std::move(sink); }

  protected:
    // Hands a body written as text ({"docs": [...]}, compact) on: to the sink, or to
    // record.documents. False when the sink asked to stop (the record is then marked incomplete).
    bool _emitBodyText(std::string text, SyncData& record);

    // Bodies written as text (JsonTextWriter): `{"docs":[` opens one, `]}` closes it and hands
    // back its text.
    static void _openBodyText(JsonTextWriter& body);
    static std::string _closeBodyText(JsonTextWriter& body);
    // Opens a live document and writes the members every one starts with: "version", "_id",
    // "type", "doc_number", the two timestamps and "device". The caller writes the rest and
    // closes it.
    static void _beginDocumentText(JsonTextWriter& body, const std::string& id, const char* type,
                                   int docNumber);
    // The deletion document, as makeDeletedDocument() makes it.
    static void _writeDeletedText(JsonTextWriter& body, const std::string& id,
                                  const std::string& rev);
    // Whether a sink takes the bodies (composers may then cut a body they would keep whole).
    bool _streaming() const { return static_cast<bool>(mSink); }

  private:
    BodySink mSink;
};
