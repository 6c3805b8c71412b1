#pragma once

#include <map>
#include <memory>
#include <string>

#include "orvane/OrvaneCallbacks.h"
#include "orvane/OrvaneError.h"

// Voice transport: opens, closes and wipes a PDS session on the server.
//
// Wire format: POST https://<host>:<port>/pds/{open,close,wipe} (always TLS; through the HTTP
// proxy when proxy host is non-empty and proxy port > 0) with the JSON body
//   {"device_id": s, "locale": s, "force": b, "companion": b, "standalone": b, "request": {s: s}}
// (close sends no "force"; wipe sends none of "force", "companion", "standalone").
// A 200 answer is a JSON object of strings, copied into `result`. Any other status carries
// {"message": s} and the call throws OrvaneError with what() == s. A transport failure (no answer)
// throws OrvaneError with "<op>: <libcurl error text>". OrvaneError::code() classifies each.
//
// Certificates: the server is verified against the CA bundle at `certificatePath` when that file
// exists, else against the system's CA store.
//
// Threading: not thread-safe; one thread at a time. Calls block (connect time-out 10 s, whole
// exchange 60 s). Ownership: `callbacks` is borrowed (may be null) and must outlive this object.
class Orvane {
  public:
    // Throws OrvaneError when the transfer handle cannot be created.
    Orvane(const std::string& serverHost, int port, const std::string& deviceId,
           OrvaneCallbacks* callbacks, bool tls, const std::string& certificatePath,
           const std::string& proxyHost, int proxyPort);
    ~Orvane();

    Orvane(const Orvane&) = delete;
    Orvane& operator=(const Orvane&) = delete;

    // Lines up to `level` (1 error .. 5 verbose) reach OrvaneCallbacks::onLog; 0 turns logging off.
    void Orvane_enable_log(int level);

    // `result` is cleared first, then filled from a 200 answer. Throws OrvaneError otherwise.
    void Orvane_pds_open(const std::string& locale, std::map<std::string, std::string> request,
                         bool force, bool companion, std::map<std::string, std::string>& result,
                         bool standalone);
    void Orvane_pds_close(const std::string& locale, std::map<std::string, std::string> request,
                          bool companion, std::map<std::string, std::string>& result,
                          bool standalone);
    void Orvane_pds_wipe(const std::string& locale, std::map<std::string, std::string> request,
                         std::map<std::string, std::string>& result);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
