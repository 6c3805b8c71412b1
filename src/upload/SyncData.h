// SyncData: one upload request of a domain, made by the composers and posted by the uploader.
// A heap object deleted through its virtual destructor by whoever holds it. Not synchronised:
// one thread (the sync worker) uses it at a time.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

// The local row a document was composed from, and the state it was in then. The server's answer
// to that document is applied only while the row is still in that state, so a change collected
// while the upload ran is never marked as synced or removed; it goes up with the next sync.
struct SentRow {
    using Columns = std::vector<std::pair<std::string, std::string>>;
    std::string table;  // "contacts", "application", "audio", "audio_playlist"
    Columns key;    // identifies the row, e.g. {"_id", "42"} or {"audio_id", "7"}, {"type", "3"}
    Columns state;  // must still hold, e.g. {"dirty", "3"}, {"version", "17"}

    // Composed as a deletion (sent at dirty 2): a confirmation removes the row.
    bool deletion() const {
        for (const auto& [column, value] : state) {
            if (column == "dirty")
                return value == "2";
        }
        return false;
    }
};

// Document id -> the row it came from. Answers for ids that are not in the map are ignored.
using SentRows = std::unordered_map<std::string, SentRow>;

// Takes one composed upload body as soon as it is complete, in order, together with the rows
// composed so far (the map goes on filling while later bodies are composed). Returning false
// stops the composition: the rows not yet composed stay dirty for the next sync.
using BodySink = std::function<bool(std::string body, const std::shared_ptr<SentRows>& sent)>;

class SyncData {
  public:
    SyncData() = default;
    virtual ~SyncData() = default;

    std::string message;                 // the JSON document being posted now
    std::vector<std::string> documents;  // the composed upload bodies, in order (when no sink
                                         // took them one at a time)
    int itemType = -1;                   // sync item (domain)
    int syncType = 1;                    // kind of sync
    int insertedCount = -1;
    int deletedCount = -1;
    int updatedCount = -1;
    // False when a dirty row could not be composed: it stays dirty and the domain is not marked
    // in step, so the next sync takes it up again.
    bool complete = true;
    // Filled by the composer, one entry per composed document; shared with the results.
    std::shared_ptr<SentRows> sentRows = std::make_shared<SentRows>();
};
