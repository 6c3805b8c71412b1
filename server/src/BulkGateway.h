#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "BulkWriteQueue.h"
#include "CouchClient.h"
#include "ReplaceHints.h"
#include "SessionToken.h"

// POST <dburl>/_bulk_docs: checks the session cookie, then writes the documents to the device's
// database with these rules:
// - a document without "_rev" creates or replaces (the current revision is looked up and set;
//   while a database's last write found none of these stored, they are first written as new
//   documents and only those that conflict are looked up: see ReplaceHints);
// - a stale "_rev" answers {"id","error":"conflict","reason":"Document update conflict.","rev":
//   <current revision>};
// - {"_deleted":true} removes the document whatever revision it carries; deleting a missing
//   document is answered {"id","ok":true,"rev":...};
// - one id several times in one request: the last occurrence is written, the earlier ones get
//   its answer;
// - anything a single document does wrong (a wrong type, an id starting with "_", a revision or
//   member the database would refuse) is answered in that document's element; the others are
//   stored. Only an unreachable database fails the whole request (502).
// Writes that requests make to one database at the same time go to it together (BulkWriteQueue).
// The answer is a JSON array in the order of "docs" (plain text; the listener gzips it). A batch
// costs at most a fixed number of database requests (a first write, three rounds of one revision
// lookup and one write, and one lookup for the conflicts), except when the database refuses a whole
// write: then its documents are written one by one so that each gets its own answer. Thread-safe:
// its only mutable state is the ReplaceHints and the BulkWriteQueue, which lock.
class BulkGateway {
  public:
    struct Answer {
        int status = 201;
        std::string body;
    };

    // One document to write: its place in "docs", the document, and how it is written.
    struct Item {
        std::size_t slot = 0;
        nlohmann::json doc;
        std::string id;      // empty: the database assigns one
        bool owned = false;  // no "_rev", or a deletion: the current revision is set here
        bool deletion = false;
    };

    // A checked request: an answer slot per document (filled for refused ones) and the documents
    // to write, at most one per id (`followers` pairs each earlier occurrence's slot with the
    // slot of the occurrence that is written).
    struct Batch {
        std::vector<nlohmann::json> answers;
        std::vector<Item> items;
        std::vector<std::pair<std::size_t, std::size_t>> followers;
    };

    BulkGateway(const CouchClient& couch, const SessionToken& tokens, std::size_t maxBodyBytes,
                std::function<std::int64_t()> clock);

    // `cookie`: value of the request's cookie header; `body`: JSON text or a gzip member of it.
    Answer handle(const std::string& database, const std::string& cookie,
                  const std::string& body) const;

    // Inflates (when gzip'd, at most `maxBodyBytes`), checks the nesting depth, parses and checks
    // each document. Returns an error answer for a body that is refused as a whole. No I/O.
    static std::optional<Answer> parse(const std::string& body, std::size_t maxBodyBytes,
                                       Batch& batch);

  private:
    std::optional<Answer> write(const std::string& dbPath, Batch& batch) const;

    const CouchClient& couch_;
    const SessionToken& tokens_;
    std::size_t maxBodyBytes_;
    std::function<std::int64_t()> clock_;
    mutable ReplaceHints hints_;
    mutable BulkWriteQueue writes_;
};
