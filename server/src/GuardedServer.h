#pragma once

#include <httplib.h>
#include <openssl/ssl.h>
#include <pelio/CHandles.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "ClientSlots.h"

// An HTTP(S) listener that slow or numerous clients cannot shut others out of:
// - each request (request line, headers and body) must arrive within `requestTimeout`; a kept-
//   alive connection waits at most `idleTimeout` for its next request;
// - a fixed pool of `workers` threads, at most `maxConnections` connections waiting or served,
//   at most `maxPerClient` of them from one address; connections over a bound are closed at once;
// - TLS when a certificate and key are given (the handshake counts against the time-out).
// Routes, limits and handlers are set as on any httplib::Server. Lives on the thread that calls
// listen_after_bind(); its workers call the handlers. Errors: is_valid() is false when the
// certificate or key cannot be loaded; refused connections are logged, at most once per minute.
class GuardedServer : public httplib::Server {
  public:
    struct Limits {
        std::chrono::milliseconds requestTimeout{30000};
        std::chrono::milliseconds idleTimeout{5000};
        std::chrono::milliseconds writeTimeout{10000};
        std::size_t workers = 16;
        std::size_t maxConnections = 64;
        std::size_t maxPerClient = 8;
        std::size_t maxRawBody = 64u * 1024u * 1024u;  // bytes as sent, before inflating
        int maxRequestsPerConnection = 100;
    };

    // Workers for this machine: eight per core, at least 16.
    static std::size_t defaultWorkers();

    GuardedServer(const std::string& name, Limits limits, const std::string& certFile = {},
                  const std::string& keyFile = {});
    ~GuardedServer() override;

    bool is_valid() const override;

  private:
    bool process_and_close_socket(socket_t sock) override;
    void refused(const std::string& why);

    const std::string name_;
    const Limits limits_;
    pelio::SslCtx ctx_;
    bool valid_ = true;
    ClientSlots slots_;
    std::mutex logMutex_;
    std::chrono::steady_clock::time_point lastRefusalLog_{};
    std::size_t refusedSinceLog_ = 0;
};
