#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace httplib {
class Client;
}

// Plain HTTP(S) calls to the CouchDB-compatible database. The URL may carry user:password@
// (sent as basic authentication) and a path prefix. Connections are kept alive and reused: each
// call borrows one from a small pool (a new one when none is idle) and gives it back, so calls
// from several threads never share a connection. Time-outs: 5 s connect, 60 s read/write.
// Thread-safe.
class CouchClient {
  public:
    struct Reply {
        int status = 0;  // 0 = the database could not be reached
        std::string body;
        std::string error;  // transport error text when status is 0
    };

    explicit CouchClient(const std::string& url);
    ~CouchClient();
    CouchClient(const CouchClient&) = delete;
    CouchClient& operator=(const CouchClient&) = delete;

    Reply get(const std::string& path) const;
    Reply put(const std::string& path) const;
    Reply put(const std::string& path, const std::string& jsonBody) const;
    Reply del(const std::string& path) const;
    Reply post(const std::string& path, const std::string& jsonBody) const;

    // Database names are made of [a-z0-9_$()+/-]; this escapes '/' and the rest of a path element.
    static std::string escape(const std::string& element);

  private:
    Reply send(const std::string& method, const std::string& path, const std::string* body) const;
    std::unique_ptr<httplib::Client> borrow() const;
    void giveBack(std::unique_ptr<httplib::Client> client) const;

    std::string origin_;  // scheme://host:port
    std::string prefix_;  // path prefix without trailing '/'
    std::string user_;
    std::string password_;

    mutable std::mutex mutex_;
    mutable std::vector<std::unique_ptr<httplib::Client>> idle_;
};
