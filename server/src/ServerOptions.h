#pragma once

#include <cstddef>
#include <optional>
#include <string>

// Command-line configuration of pds-server. Parsed once on the main thread, then read-only.
struct ServerOptions {
    std::string listenHost;  // PDS calls (TLS)
    int listenPort = -1;     // 0 = any free port (see portsFile)
    std::string tlsCert;
    std::string tlsKey;

    std::string dbListenHost;  // bulk-document gateway; empty = no gateway
    int dbListenPort = -1;
    std::string dbTlsCert;  // both set = gateway over TLS
    std::string dbTlsKey;
    std::string dbUrlBase;  // base of "dburl"; default derived from the gateway address
    std::string couchUrl = "http://127.0.0.1:5984";

    std::string secret;  // token signing key; empty = random per start
    long sessionTtlSeconds = 3600;
    int forceLimit = 60;
    long forceWindowSeconds = 3600;
    std::size_t maxBodyBytes = 64u * 1024u * 1024u;  // also the bound of an inflated body
    long requestTimeoutSeconds = 30;                 // whole request: headers and body
    std::size_t workers = 0;                         // per listener; 0 = sized for the machine
    std::size_t maxConnections = 0;                  // per listener; 0 = four per worker
    std::size_t maxPerClient = 0;                    // per listener; 0 = half the workers
    int newDeviceLimit = 20;                         // new devices per client address and window
    long newDeviceWindowSeconds = 3600;
    std::size_t journalSize = 0;  // PDS calls kept for GET /admin/calls
    std::string policy;           // JSON text handed out as "policy"
    std::string failOpen;         // when set, every open answers this result code
    bool admin = false;           // loopback-only /admin endpoints
    std::string portsFile;        // written once bound: "pds=PORT" and "db=PORT" lines
    bool verbose = false;
};

// Splits "HOST:PORT" or "[V6]:PORT". Returns false on bad input.
bool splitHostPort(const std::string& text, std::string& host, int& port);

// `pds-server reset-device [--couch URL] DEVICE_ID`: the operator's reset of a device's secret.
struct ResetCommand {
    std::string couchUrl = "http://127.0.0.1:5984";
    std::string deviceId;
};

// Parses the arguments after "reset-device"; prints the problem and sets `exitCode` 2 on bad input.
std::optional<ResetCommand> parseResetCommand(int argc, char** argv, int& exitCode);

// Parses argv. On --help prints usage and sets `exitCode` 0; on bad input prints the problem and
// usage to stderr and sets `exitCode` 2. Returns the options when the server should run.
std::optional<ServerOptions> parseServerOptions(int argc, char** argv, int& exitCode);
