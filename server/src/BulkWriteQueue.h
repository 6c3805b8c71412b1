#pragma once

#include <nlohmann/json.hpp>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "CouchClient.h"

// Joins the bulk writes that several request threads make to one database at the same time into
// one _bulk_docs request (a group commit). The database pays a fixed cost per request besides its
// cost per document, and devices post their documents a hundred at a time over several
// connections; joined, those posts cost it a few larger requests instead.
//
// A write waits while another write to the same database is on its way; when that one is
// answered, the writes waiting then go together, in the order they came, as long as no document id
// appears in two of them (a write that shares an id waits for the next request) and the request
// stays within `maxDocs`. A lone write is posted as it is and waits for nothing.
//
// Errors: when the joined request fails (no answer, an error status, or not one result per
// document), each write that was in it is posted again on its own by its own thread, so that it
// gets the answer it would have had alone; the documents that the database refused or could not
// take are then refused or taken again, and a document already stored comes back as a conflict,
// which the gateway's rounds resolve like any other.
// Thread-safe (one mutex); the CouchClient must outlive the queue.
class BulkWriteQueue {
  public:
    struct Written {
        CouchClient::Reply reply;  // the database's answer (the body empty when joined)
        nlohmann::json results;    // parsed results for these documents, or null when unreadable
    };

    explicit BulkWriteQueue(const CouchClient& couch, std::size_t maxDocs = 1000);

    // Writes `docs` (a JSON array of documents; `ids` their ids, "" for none) to
    // `dbPath`/_bulk_docs. Blocks until they are answered.
    Written post(const std::string& dbPath, const nlohmann::json& docs,
                 const std::vector<std::string>& ids);

  private:
    struct Waiter {
        std::string text;  // the documents as the inside of a JSON array
        std::size_t count = 0;
        const std::vector<std::string>* ids = nullptr;
        bool done = false;
        bool alone = false;  // the joined request failed: post on its own
        Written written;
    };
    struct Database {
        bool writing = false;
        std::deque<Waiter*> waiting;
        std::size_t users = 0;  // threads inside post() for it: the entry stays while any is
    };

    std::vector<Waiter*> takeJoinable(Database& db);
    void writeJoined(const std::string& dbPath, const std::vector<Waiter*>& joined);
    Written postAlone(const std::string& dbPath, const std::string& inner) const;

    const CouchClient& couch_;
    const std::size_t maxDocs_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, Database> databases_;
};
