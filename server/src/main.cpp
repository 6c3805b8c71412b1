// pds-server: PDS sessions over TLS and the bulk-document gateway. See server/README.md.
#include <httplib.h>
#include <signal.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <thread>

#include "BulkGateway.h"
#include "CouchClient.h"
#include "DeviceRegistry.h"
#include "ForceLimiter.h"
#include "GuardedServer.h"
#include "GzipCodec.h"
#include "JsonDepth.h"
#include "PdsService.h"
#include "RequestBody.h"
#include "ServerOptions.h"
#include "SessionToken.h"

using nlohmann::json;

namespace {

std::int64_t unixNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

bool isLoopback(const std::string& addr) {
    return addr == "::1" || addr.rfind("127.", 0) == 0 || addr.rfind("::ffff:127.", 0) == 0;
}

GuardedServer::Limits limitsFrom(const ServerOptions& opt) {
    GuardedServer::Limits l;
    l.requestTimeout = std::chrono::seconds(opt.requestTimeoutSeconds);
    l.workers = opt.workers ? opt.workers : GuardedServer::defaultWorkers();
    l.maxConnections = opt.maxConnections ? opt.maxConnections : 4 * l.workers;
    l.maxPerClient = opt.maxPerClient ? opt.maxPerClient : std::max<std::size_t>(1, l.workers / 2);
    // Chunk framing may double a body's size on the wire; the inflated size is bounded apart.
    l.maxRawBody = 2 * opt.maxBodyBytes + 64 * 1024;
    return l;
}

void sendMessage(httplib::Response& res, int status, const std::string& text) {
    res.status = status;
    res.set_content(json{{"message", text}}.dump(), "application/json");
}

// Reads a PDS listener body; answers 413 or 400 itself and returns false when it cannot.
bool readPdsBody(const httplib::Request& req, const httplib::ContentReader& read,
                 std::size_t maxBody, const std::string& what, httplib::Response& res,
                 std::string& body) {
    switch (RequestBody::read(req, read, maxBody, body)) {
        case RequestBody::Outcome::Complete:
            return true;
        case RequestBody::Outcome::TooLarge:
            sendMessage(res, 413, what + ": request body is too large");
            return false;
        case RequestBody::Outcome::Unreadable:
            break;
    }
    sendMessage(res, 400, what + ": request body could not be read");
    return false;
}

// Operator command: removes a device's secret binding.
int resetDevice(int argc, char** argv) {
    int exitCode = 0;
    const std::optional<ResetCommand> cmd = parseResetCommand(argc, argv, exitCode);
    if (!cmd) {
        return exitCode;
    }
    try {
        const CouchClient couch(cmd->couchUrl);
        switch (DeviceRegistry(couch).reset(cmd->deviceId)) {
            case DeviceRegistry::Verdict::Match:
                std::cout << "pds-server: device secret removed; the next open binds a new one\n";
                return 0;
            case DeviceRegistry::Verdict::Unknown:
                std::cout << "pds-server: the device has no secret bound\n";
                return 0;
            default:
                std::cerr << "pds-server: the device registry could not be reached\n";
                return 1;
        }
    } catch (const std::exception& e) {
        std::cerr << "pds-server: " << e.what() << "\n";
        return 2;
    }
}

// Gateway answers are gzip members always, whatever their size. The content type carries a
// charset so that the HTTP layer does not compress a second time.
void sendGzip(httplib::Response& res, int status, const std::string& jsonText) {
    res.status = status;
    res.set_header("Content-Encoding", "gzip");
    res.set_content(GzipCodec::compress(jsonText), "application/json; charset=utf-8");
}

std::string urlHost(const std::string& host) {
    return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

int bindTo(httplib::Server& server, const std::string& host, int port) {
    if (port == 0) {
        return server.bind_to_any_port(host);
    }
    return server.bind_to_port(host, port) ? port : -1;
}

// Signals are taken by one waiting thread; every other thread has them blocked.
sigset_t blockStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return signals;
}

// The PDS listener and, with --db-listen, the gateway; false (and a line) when a certificate
// cannot be loaded.
bool makeListeners(const ServerOptions& opt, std::unique_ptr<GuardedServer>& pds,
                   std::unique_ptr<GuardedServer>& gateway) {
    const GuardedServer::Limits limits = limitsFrom(opt);
    pds = std::make_unique<GuardedServer>("PDS listener", limits, opt.tlsCert, opt.tlsKey);
    if (!pds->is_valid()) {
        std::cerr << "pds-server: cannot load --tls-cert/--tls-key\n";
        return false;
    }
    if (!opt.dbListenHost.empty()) {
        gateway = std::make_unique<GuardedServer>("gateway", limits, opt.dbTlsCert, opt.dbTlsKey);
        if (!gateway->is_valid()) {
            std::cerr << "pds-server: cannot load --db-tls-cert/--db-tls-key\n";
            return false;
        }
    }
    return true;
}

// Binds both listeners (port 0: any free port) and derives the dburl base from the gateway's
// address when none was given; false (and a line) when an address cannot be bound.
bool bindListeners(ServerOptions& opt, GuardedServer& pds, GuardedServer* gateway, int& pdsPort,
                   int& dbPort) {
    pdsPort = bindTo(pds, opt.listenHost, opt.listenPort);
    if (pdsPort < 0) {
        std::cerr << "pds-server: cannot listen on " << opt.listenHost << ":" << opt.listenPort
                  << "\n";
        return false;
    }
    dbPort = -1;
    if (gateway) {
        dbPort = bindTo(*gateway, opt.dbListenHost, opt.dbListenPort);
        if (dbPort < 0) {
            std::cerr << "pds-server: cannot listen on " << opt.dbListenHost << ":"
                      << opt.dbListenPort << "\n";
            return false;
        }
        if (opt.dbUrlBase.empty()) {
            opt.dbUrlBase = std::string(opt.dbTlsCert.empty() ? "http" : "https") + "://" +
                            urlHost(opt.dbListenHost) + ":" + std::to_string(dbPort);
        }
    }
    return true;
}

httplib::Logger requestLogger(bool verbose) {
    return [verbose](const httplib::Request& req, const httplib::Response& res) {
        if (verbose) {
            std::cerr << "pds-server: " << req.method << " " << req.path << " -> " << res.status
                      << "\n";
        }
    };
}

// The three PDS calls, and the JSON message of every error answer of the listener.
void routePds(GuardedServer& pds, PdsService& service, std::size_t maxBody) {
    pds.Post(R"(/pds/(open|close|wipe))",
             [&service, maxBody](const httplib::Request& req, httplib::Response& res,
                                 const httplib::ContentReader& read) {
                 const std::string op = req.matches[1];
                 std::string body;
                 if (!readPdsBody(req, read, maxBody, op, res, body)) {
                     return;
                 }
                 try {
                     PdsService::Answer a = op == "open"    ? service.open(body, req.remote_addr)
                                            : op == "close" ? service.close(body)
                                                            : service.wipe(body);
                     res.status = a.status;
                     res.set_content(a.body, "application/json");
                 } catch (const std::exception& e) {
                     std::cerr << "pds-server: " << op << " failed: " << e.what() << "\n";
                     sendMessage(res, 500, op + ": internal error");
                 }
             });
    pds.set_error_handler([](const httplib::Request& req, httplib::Response& res) {
        if (res.body.empty()) {
            res.set_content(
                json{{"message", req.path + ": HTTP " + std::to_string(res.status)}}.dump(),
                "application/json");
        }
    });
}

// --admin: fault injection and the call log, for loopback clients only.
void routeAdmin(GuardedServer& pds, PdsService& service, std::size_t maxBody) {
    auto loopbackOnly = [](const httplib::Request& req, httplib::Response& res) {
        if (isLoopback(req.remote_addr)) {
            return true;
        }
        res.status = 403;
        res.set_content(json{{"message", "admin: loopback clients only"}}.dump(),
                        "application/json");
        return false;
    };
    pds.Post("/admin/fault", [&service, loopbackOnly, maxBody](const httplib::Request& req,
                                                               httplib::Response& res,
                                                               const httplib::ContentReader& read) {
        std::string body;
        if (!loopbackOnly(req, res) || !readPdsBody(req, read, maxBody, "admin", res, body)) {
            return;
        }
        const json j = JsonDepth::within(body) ? json::parse(body, nullptr, false) : json();
        try {
            if (!j.is_object() || !j.contains("op") || !j["op"].is_string()) {
                throw std::invalid_argument("no op");
            }
            PdsService::Fault f;
            f.status = j.value("status", 200);
            f.reason = j.value("reason", "failure");
            f.result = j.value("result", "");
            f.message = j.value("message", "");
            f.remaining = j.value("count", -1);
            service.setFault(j["op"].get<std::string>(), f);
            res.set_content("{}", "application/json");
        } catch (const std::exception&) {
            sendMessage(res, 400, "admin: need {\"op\": s, \"status\": n, ...}");
        }
    });
    pds.Post("/admin/fault/clear", [&service, loopbackOnly, maxBody](
                                       const httplib::Request& req, httplib::Response& res,
                                       const httplib::ContentReader& read) {
        std::string body;
        if (loopbackOnly(req, res) && readPdsBody(req, read, maxBody, "admin", res, body)) {
            service.clearFaults();
            res.set_content("{}", "application/json");
        }
    });
    pds.Get("/admin/calls",
            [&service, loopbackOnly](const httplib::Request& req, httplib::Response& res) {
                if (loopbackOnly(req, res)) {
                    res.set_content(service.callLog(), "application/json");
                }
            });
}

// POST <dburl>/_bulk_docs, and a gzip'd JSON error for everything else the gateway answers.
void routeGateway(GuardedServer& gateway, BulkGateway& bulk, std::size_t maxBody) {
    // The body is read here, inflated by the HTTP layer when gzip'd, and bounded by
    // --max-body while it inflates.
    gateway.Post(R"(.*/([^/]+)/_bulk_docs)", [&bulk, maxBody](const httplib::Request& req,
                                                              httplib::Response& res,
                                                              const httplib::ContentReader& read) {
        std::string body;
        const RequestBody::Outcome got = RequestBody::read(req, read, maxBody, body);
        if (got != RequestBody::Outcome::Complete) {
            const bool tooLarge = got == RequestBody::Outcome::TooLarge;
            sendGzip(res, tooLarge ? 413 : 400,
                     json{{"error", "bad_request"},
                          {"reason", tooLarge ? "Request body is too large."
                                              : "Request body could not be read."}}
                         .dump());
            return;
        }
        try {
            BulkGateway::Answer a =
                bulk.handle(req.matches[1], req.get_header_value("cookie"), body);
            sendGzip(res, a.status, a.body);
        } catch (const std::exception& e) {
            std::cerr << "pds-server: _bulk_docs failed: " << e.what() << "\n";
            sendGzip(res, 500,
                     json{{"error", "internal_error"}, {"reason", "Internal error."}}.dump());
        }
    });
    gateway.set_error_handler([](const httplib::Request&, httplib::Response& res) {
        if (res.has_header("Content-Encoding")) {
            return;  // an answer of the gateway itself
        }
        const int status = res.status;
        std::string reason;
        switch (status) {
            case 400:
                reason = "Request body could not be read (bad gzip stream?).";
                break;
            case 404:
                reason = "Only POST <dburl>/_bulk_docs is served here.";
                break;
            case 413:
                reason = "Request body is too large.";
                break;
            default:
                reason = "HTTP " + std::to_string(status);
        }
        sendGzip(res, status, json{{"error", "bad_request"}, {"reason", reason}}.dump());
    });
}

// Writes the ports file (when asked for) and the start line on standard error.
void announce(const ServerOptions& opt, int pdsPort, bool hasGateway, int dbPort) {
    if (!opt.portsFile.empty()) {
        std::ofstream ports(opt.portsFile + ".tmp");
        ports << "pds=" << pdsPort << "\n";
        if (hasGateway) {
            ports << "db=" << dbPort << "\n";
        }
        ports.close();
        std::rename((opt.portsFile + ".tmp").c_str(), opt.portsFile.c_str());
    }
    std::cerr << "pds-server: PDS on " << opt.listenHost << ":" << pdsPort;
    if (hasGateway) {
        std::cerr << ", gateway on " << opt.dbListenHost << ":" << dbPort << " (dburl base "
                  << opt.dbUrlBase << ")";
    }
    std::cerr << ", database " << opt.couchUrl << std::endl;
}

// Serves on one thread per listener until SIGINT or SIGTERM, then stops both.
int serveUntilSignal(GuardedServer& pds, GuardedServer* gateway, const sigset_t& signals) {
    std::thread pdsThread([&] { pds.listen_after_bind(); });
    std::thread dbThread;
    if (gateway) {
        dbThread = std::thread([&] { gateway->listen_after_bind(); });
    }
    int sig = 0;
    sigwait(&signals, &sig);
    std::cerr << "pds-server: stopping" << std::endl;
    pds.stop();
    if (gateway) {
        gateway->stop();
    }
    pdsThread.join();
    if (dbThread.joinable()) {
        dbThread.join();
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "reset-device") {
        return resetDevice(argc, argv);
    }
    int exitCode = 0;
    const std::optional<ServerOptions> parsed = parseServerOptions(argc, argv, exitCode);
    if (!parsed) {
        return exitCode;
    }
    ServerOptions opt = *parsed;
    const sigset_t signals = blockStopSignals();

    std::unique_ptr<CouchClient> couch;
    try {
        couch = std::make_unique<CouchClient>(opt.couchUrl);
    } catch (const std::exception& e) {
        std::cerr << "pds-server: " << e.what() << "\n";
        return 2;
    }
    const SessionToken tokens(opt.secret.empty() ? SessionToken::randomSecret() : opt.secret);
    ForceLimiter limiter(opt.forceLimit, opt.forceWindowSeconds);
    ForceLimiter newDevices(opt.newDeviceLimit, opt.newDeviceWindowSeconds);
    const DeviceRegistry registry(*couch);
    if (!registry.prepare()) {
        std::cerr << "pds-server: the device registry database could not be created yet; "
                     "opens of new devices create it\n";
    }

    std::unique_ptr<GuardedServer> pds;
    std::unique_ptr<GuardedServer> gateway;
    if (!makeListeners(opt, pds, gateway)) {
        return 2;
    }
    int pdsPort = -1;
    int dbPort = -1;
    if (!bindListeners(opt, *pds, gateway.get(), pdsPort, dbPort)) {
        return 1;
    }

    PdsService service({opt.dbUrlBase, opt.sessionTtlSeconds, opt.policy, opt.journalSize}, *couch,
                       tokens, registry, limiter, newDevices, unixNow);
    if (!opt.failOpen.empty()) {
        PdsService::Fault f;
        f.result = opt.failOpen;
        service.setFault("open", f);
    }
    BulkGateway bulk(*couch, tokens, opt.maxBodyBytes, unixNow);

    const httplib::Logger logger = requestLogger(opt.verbose);
    pds->set_payload_max_length(opt.maxBodyBytes);
    pds->set_logger(logger);
    routePds(*pds, service, opt.maxBodyBytes);
    if (opt.admin) {
        routeAdmin(*pds, service, opt.maxBodyBytes);
    }
    if (gateway) {
        gateway->set_payload_max_length(opt.maxBodyBytes);
        gateway->set_logger(logger);
        routeGateway(*gateway, bulk, opt.maxBodyBytes);
    }

    announce(opt, pdsPort, gateway != nullptr, dbPort);
    return serveUntilSignal(*pds, gateway.get(), signals);
}
