#include "ServerOptions.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string_view>

namespace {

const char* kUsage =
    R"(Usage: pds-server --listen HOST:PORT --tls-cert FILE --tls-key FILE [options]
       pds-server reset-device [--couch URL] DEVICE_ID

PDS session calls (POST /pds/open, /pds/close, /pds/wipe) over TLS, and a bulk-document
gateway (POST <dburl>/_bulk_docs) in front of a CouchDB-compatible database.

  --listen HOST:PORT        address of the PDS calls (TLS); PORT 0 picks a free port
  --tls-cert FILE           certificate (PEM) of the PDS listener
  --tls-key FILE            private key (PEM) of the PDS listener
  --db-listen HOST:PORT     address of the bulk-document gateway (plain HTTP unless
                            --db-tls-cert/--db-tls-key are given); PORT 0 picks a free port
  --db-tls-cert FILE        certificate (PEM) of the gateway
  --db-tls-key FILE         private key (PEM) of the gateway
  --db-url-base URL         base of the "dburl" handed out by open
                            (default: http[s]://<db-listen address>)
  --couch URL               the CouchDB-compatible database (default http://127.0.0.1:5984);
                            user:password@ in the URL is sent as basic authentication
  --secret TEXT             key that signs session cookies (default: random at start;
                            give the same key to every gateway that serves one database)
  --session-ttl SECONDS     life of a session cookie (default 3600)
  --force-limit N           forced opens allowed per device and window (default 60)
  --force-window SECONDS    window of the forced-open limit (default 3600)
  --max-body BYTES          largest accepted request body, as sent and once inflated
                            (default 67108864)
  --request-timeout SECONDS a whole request (headers and body) must arrive within this
                            (default 30)
  --workers N               worker threads per listener (default 8 per core, at least 16)
  --max-connections N       connections waiting or served per listener (default 4 per worker)
  --max-per-client N        connections per client address and listener (default half the
                            workers)
  --new-device-limit N      devices a client address may register per window (default 20)
  --new-device-window SECONDS  window of that limit (default 3600)
  --policy JSON             sync policy document handed out by open
  --fail-open RESULT        test knob: every open answers {"reason":"failure","result":RESULT}
  --admin                   test knob: enable the /admin endpoints (loopback clients only)
  --journal N               test knob: keep the last N PDS calls for GET /admin/calls
                            (default 0: no request body is kept after its answer)
  --ports-file FILE         write "pds=PORT" and "db=PORT" once the listeners are bound
  --verbose                 log every request to stderr
  --help                    this text

reset-device removes the secret bound to DEVICE_ID in the database at --couch, so that the
next open of that device binds a new one. Run it only for a device whose owner lost its secret.
)";

bool parseLong(const std::string& text, long minimum, long& out) {
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < minimum) {
        return false;
    }
    out = v;
    return true;
}

}  // namespace

bool splitHostPort(const std::string& text, std::string& host, int& port) {
    std::string h;
    std::string p;
    if (!text.empty() && text.front() == '[') {
        const auto close = text.find(']');
        if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') {
            return false;
        }
        h = text.substr(1, close - 1);
        p = text.substr(close + 2);
    } else {
        const auto colon = text.rfind(':');
        if (colon == std::string::npos) {
            return false;
        }
        h = text.substr(0, colon);
        p = text.substr(colon + 1);
    }
    long v = 0;
    if (h.empty() || !parseLong(p, 0, v) || v > 65535) {
        return false;
    }
    host = h;
    port = static_cast<int>(v);
    return true;
}

namespace {

// Each option setter: nullopt when `arg` is not one of its options, "" when the value was taken,
// else what is wrong with it.
using OptionOutcome = std::optional<std::string>;

OptionOutcome applyTextOption(ServerOptions& o, std::string_view arg, const std::string& value) {
    if (arg == "--listen") {
        if (!splitHostPort(value, o.listenHost, o.listenPort)) {
            return "bad --listen address: " + value;
        }
    } else if (arg == "--tls-cert") {
        o.tlsCert = value;
    } else if (arg == "--tls-key") {
        o.tlsKey = value;
    } else if (arg == "--db-listen") {
        if (!splitHostPort(value, o.dbListenHost, o.dbListenPort)) {
            return "bad --db-listen address: " + value;
        }
    } else if (arg == "--db-tls-cert") {
        o.dbTlsCert = value;
    } else if (arg == "--db-tls-key") {
        o.dbTlsKey = value;
    } else if (arg == "--db-url-base") {
        o.dbUrlBase = value;
        while (!o.dbUrlBase.empty() && o.dbUrlBase.back() == '/') {
            o.dbUrlBase.pop_back();
        }
    } else if (arg == "--couch") {
        o.couchUrl = value;
    } else if (arg == "--secret") {
        o.secret = value;
    } else if (arg == "--policy") {
        o.policy = value;
    } else if (arg == "--fail-open") {
        o.failOpen = value;
    } else if (arg == "--ports-file") {
        o.portsFile = value;
    } else {
        return std::nullopt;
    }
    return "";
}

OptionOutcome applyNumberOption(ServerOptions& o, std::string_view arg, const std::string& value) {
    long n = 0;
    if (arg == "--session-ttl") {
        if (!parseLong(value, 1, n)) {
            return "bad --session-ttl: " + value;
        }
        o.sessionTtlSeconds = n;
    } else if (arg == "--force-limit") {
        if (!parseLong(value, 0, n) || n > 1000000) {
            return "bad --force-limit: " + value;
        }
        o.forceLimit = static_cast<int>(n);
    } else if (arg == "--force-window") {
        if (!parseLong(value, 1, n)) {
            return "bad --force-window: " + value;
        }
        o.forceWindowSeconds = n;
    } else if (arg == "--max-body") {
        if (!parseLong(value, 1024, n)) {
            return "bad --max-body (at least 1024): " + value;
        }
        o.maxBodyBytes = static_cast<std::size_t>(n);
    } else if (arg == "--request-timeout") {
        if (!parseLong(value, 1, n)) {
            return "bad --request-timeout: " + value;
        }
        o.requestTimeoutSeconds = n;
    } else if (arg == "--workers" || arg == "--max-connections" || arg == "--max-per-client" ||
               arg == "--journal") {
        if (!parseLong(value, arg == "--journal" ? 0 : 1, n) || n > 100000) {
            return "bad " + std::string(arg) + ": " + value;
        }
        std::size_t& field = arg == "--workers"           ? o.workers
                             : arg == "--max-connections" ? o.maxConnections
                             : arg == "--max-per-client"  ? o.maxPerClient
                                                          : o.journalSize;
        field = static_cast<std::size_t>(n);
    } else if (arg == "--new-device-limit") {
        if (!parseLong(value, 0, n) || n > 1000000) {
            return "bad --new-device-limit: " + value;
        }
        o.newDeviceLimit = static_cast<int>(n);
    } else if (arg == "--new-device-window") {
        if (!parseLong(value, 1, n)) {
            return "bad --new-device-window: " + value;
        }
        o.newDeviceWindowSeconds = n;
    } else {
        return std::nullopt;
    }
    return "";
}

}  // namespace

std::optional<ServerOptions> parseServerOptions(int argc, char** argv, int& exitCode) {
    ServerOptions o;
    auto fail = [&](const std::string& why) -> std::optional<ServerOptions> {
        std::cerr << "pds-server: " << why << "\n\n" << kUsage;
        exitCode = 2;
        return std::nullopt;
    };
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::cout << kUsage;
            exitCode = 0;
            return std::nullopt;
        }
        if (arg == "--admin") {
            o.admin = true;
            continue;
        }
        if (arg == "--verbose") {
            o.verbose = true;
            continue;
        }
        if (i + 1 >= argc) {
            return fail("missing value or unknown option: " + std::string(arg));
        }
        const std::string value = argv[++i];
        OptionOutcome error = applyTextOption(o, arg, value);
        if (!error) {
            error = applyNumberOption(o, arg, value);
        }
        if (!error) {
            error = "unknown option: " + std::string(arg);
        }
        if (!error->empty()) {
            return fail(*error);
        }
    }
    if (o.listenPort < 0 || o.tlsCert.empty() || o.tlsKey.empty()) {
        return fail("--listen, --tls-cert and --tls-key are required");
    }
    if (o.dbTlsCert.empty() != o.dbTlsKey.empty()) {
        return fail("--db-tls-cert and --db-tls-key go together");
    }
    return o;
}

std::optional<ResetCommand> parseResetCommand(int argc, char** argv, int& exitCode) {
    ResetCommand r;
    for (int i = 2; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--couch" && i + 1 < argc) {
            r.couchUrl = argv[++i];
        } else if (r.deviceId.empty() && !arg.empty() && arg[0] != '-') {
            r.deviceId = arg;
        } else {
            std::cerr << "pds-server: reset-device: unexpected argument " << arg << "\n\n"
                      << kUsage;
            exitCode = 2;
            return std::nullopt;
        }
    }
    if (r.deviceId.empty()) {
        std::cerr << "pds-server: reset-device needs a DEVICE_ID\n\n" << kUsage;
        exitCode = 2;
        return std::nullopt;
    }
    return r;
}
