#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "CouchClient.h"
#include "SessionToken.h"

// POST <dburl>/_bulk_docs: checks the session cookie, then writes the documents to the device's
// database with these rules:
// - a document without "_rev" creates or replaces (the current revision is looked up and set);
// - a stale "_rev" answers {"id","error":"conflict","reason":"Document update conflict.","rev":
//   <current revision>};
// - {"_deleted":true} removes the document whatever revision it carries; deleting a missing
//   document is answered {"id","ok":true,"rev":...}.
// The answer is a JSON array in the order of "docs" (plain text; the listener gzips it).
// Thread-safe: holds no mutable state.
class BulkGateway {
  public:
    struct Answer {
        int status = 201;
        std::string body;
    };

    BulkGateway(const CouchClient& couch, const SessionToken& tokens, std::size_t maxBodyBytes,
                std::function<std::int64_t()> clock);

    // `cookie`: value of the request's cookie header; `body`: JSON text or a gzip member of it.
    Answer handle(const std::string& database, const std::string& cookie,
                  const std::string& body) const;

  private:
    const CouchClient& couch_;
    const SessionToken& tokens_;
    std::size_t maxBodyBytes_;
    std::function<std::int64_t()> clock_;
};
