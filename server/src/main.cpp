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
#include "ForceLimiter.h"
#include "GzipCodec.h"
#include "PdsService.h"
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

std::unique_ptr<httplib::Server> makeServer(const std::string& cert, const std::string& key) {
    if (cert.empty()) {
        return std::make_unique<httplib::Server>();
    }
    return std::make_unique<httplib::SSLServer>(cert.c_str(), key.c_str());
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

}  // namespace

int main(int argc, char** argv) {
    int exitCode = 0;
    const std::optional<ServerOptions> parsed = parseServerOptions(argc, argv, exitCode);
    if (!parsed) {
        return exitCode;
    }
    ServerOptions opt = *parsed;

    // Signals are taken by one waiting thread; every other thread has them blocked.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    std::unique_ptr<CouchClient> couch;
    try {
        couch = std::make_unique<CouchClient>(opt.couchUrl);
    } catch (const std::exception& e) {
        std::cerr << "pds-server: " << e.what() << "\n";
        return 2;
    }
    const SessionToken tokens(opt.secret.empty() ? SessionToken::randomSecret() : opt.secret);
    ForceLimiter limiter(opt.forceLimit, opt.forceWindowSeconds);

    auto pds = makeServer(opt.tlsCert, opt.tlsKey);
    if (!pds->is_valid()) {
        std::cerr << "pds-server: cannot load --tls-cert/--tls-key\n";
        return 2;
    }
    std::unique_ptr<httplib::Server> gateway;
    if (!opt.dbListenHost.empty()) {
        gateway = makeServer(opt.dbTlsCert, opt.dbTlsKey);
        if (!gateway->is_valid()) {
            std::cerr << "pds-server: cannot load --db-tls-cert/--db-tls-key\n";
            return 2;
        }
    }

    const int pdsPort = bindTo(*pds, opt.listenHost, opt.listenPort);
    if (pdsPort < 0) {
        std::cerr << "pds-server: cannot listen on " << opt.listenHost << ":" << opt.listenPort
                  << "\n";
        return 1;
    }
    int dbPort = -1;
    if (gateway) {
        dbPort = bindTo(*gateway, opt.dbListenHost, opt.dbListenPort);
        if (dbPort < 0) {
            std::cerr << "pds-server: cannot listen on " << opt.dbListenHost << ":"
                      << opt.dbListenPort << "\n";
            return 1;
        }
        if (opt.dbUrlBase.empty()) {
            opt.dbUrlBase = std::string(opt.dbTlsCert.empty() ? "http" : "https") + "://" +
                            urlHost(opt.dbListenHost) + ":" + std::to_string(dbPort);
        }
    }

    PdsService service({opt.dbUrlBase, opt.sessionTtlSeconds, opt.policy}, *couch, tokens, limiter,
                       unixNow);
    if (!opt.failOpen.empty()) {
        PdsService::Fault f;
        f.result = opt.failOpen;
        service.setFault("open", f);
    }
    BulkGateway bulk(*couch, tokens, opt.maxBodyBytes, unixNow);

    const bool verbose = opt.verbose;
    auto logger = [verbose](const httplib::Request& req, const httplib::Response& res) {
        if (verbose) {
            std::cerr << "pds-server: " << req.method << " " << req.path << " -> " << res.status
                      << "\n";
        }
    };

    // PDS listener.
    pds->set_payload_max_length(opt.maxBodyBytes);
    pds->set_logger(logger);
    pds->Post(R"(/pds/(open|close|wipe))",
              [&](const httplib::Request& req, httplib::Response& res) {
                  const std::string op = req.matches[1];
                  PdsService::Answer a = op == "open"    ? service.open(req.body)
                                         : op == "close" ? service.close(req.body)
                                                         : service.wipe(req.body);
                  res.status = a.status;
                  res.set_content(a.body, "application/json");
              });
    pds->set_error_handler([](const httplib::Request& req, httplib::Response& res) {
        if (res.body.empty()) {
            res.set_content(
                json{{"message", req.path + ": HTTP " + std::to_string(res.status)}}.dump(),
                "application/json");
        }
    });
    if (opt.admin) {
        auto loopbackOnly = [](const httplib::Request& req, httplib::Response& res) {
            if (isLoopback(req.remote_addr)) {
                return true;
            }
            res.status = 403;
            res.set_content(json{{"message", "admin: loopback clients only"}}.dump(),
                            "application/json");
            return false;
        };
        pds->Post("/admin/fault", [&, loopbackOnly](const httplib::Request& req,
                                                    httplib::Response& res) {
            if (!loopbackOnly(req, res)) {
                return;
            }
            const json j = json::parse(req.body, nullptr, false);
            if (j.is_discarded() || !j.is_object() || !j.contains("op") || !j["op"].is_string()) {
                res.status = 400;
                res.set_content(json{{"message", "admin: need {\"op\": ...}"}}.dump(),
                                "application/json");
                return;
            }
            PdsService::Fault f;
            f.status = j.value("status", 200);
            f.reason = j.value("reason", "failure");
            f.result = j.value("result", "");
            f.message = j.value("message", "");
            f.remaining = j.value("count", -1);
            service.setFault(j["op"].get<std::string>(), f);
            res.set_content("{}", "application/json");
        });
        pds->Post("/admin/fault/clear",
                  [&, loopbackOnly](const httplib::Request& req, httplib::Response& res) {
                      if (loopbackOnly(req, res)) {
                          service.clearFaults();
                          res.set_content("{}", "application/json");
                      }
                  });
        pds->Get("/admin/calls",
                 [&, loopbackOnly](const httplib::Request& req, httplib::Response& res) {
                     if (loopbackOnly(req, res)) {
                         res.set_content(service.callLog(), "application/json");
                     }
                 });
    }

    // Gateway listener.
    if (gateway) {
        gateway->set_payload_max_length(opt.maxBodyBytes);
        gateway->set_logger(logger);
        // The body is read here (inflated by the HTTP layer when gzip'd) so that its inflated
        // size is bounded by --max-body as well.
        const std::size_t maxBody = opt.maxBodyBytes;
        gateway->Post(R"(.*/([^/]+)/_bulk_docs)", [&, maxBody](const httplib::Request& req,
                                                               httplib::Response& res,
                                                               const httplib::ContentReader& read) {
            std::string body;
            bool tooLarge = false;
            const bool complete = read([&](const char* data, size_t length) {
                if (body.size() + length > maxBody) {
                    tooLarge = true;
                    return false;
                }
                body.append(data, length);
                return true;
            });
            if (!complete && !tooLarge && req.has_header("Content-Length")) {
                // Refused by the HTTP layer before any byte arrived.
                tooLarge = std::strtoull(req.get_header_value("Content-Length").c_str(), nullptr,
                                         10) > maxBody;
            }
            if (!complete) {
                sendGzip(res, tooLarge ? 413 : 400,
                         json{{"error", "bad_request"},
                              {"reason", tooLarge ? "Request body is too large."
                                                  : "Request body could not be read."}}
                             .dump());
                return;
            }
            BulkGateway::Answer a =
                bulk.handle(req.matches[1], req.get_header_value("cookie"), body);
            sendGzip(res, a.status, a.body);
        });
        gateway->set_error_handler([](const httplib::Request&, httplib::Response& res) {
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

    if (!opt.portsFile.empty()) {
        std::ofstream ports(opt.portsFile + ".tmp");
        ports << "pds=" << pdsPort << "\n";
        if (gateway) {
            ports << "db=" << dbPort << "\n";
        }
        ports.close();
        std::rename((opt.portsFile + ".tmp").c_str(), opt.portsFile.c_str());
    }
    std::cerr << "pds-server: PDS on " << opt.listenHost << ":" << pdsPort;
    if (gateway) {
        std::cerr << ", gateway on " << opt.dbListenHost << ":" << dbPort << " (dburl base "
                  << opt.dbUrlBase << ")";
    }
    std::cerr << ", database " << opt.couchUrl << std::endl;

    std::thread pdsThread([&] { pds->listen_after_bind(); });
    std::thread dbThread;
    if (gateway) {
        dbThread = std::thread([&] { gateway->listen_after_bind(); });
    }
    int sig = 0;
    sigwait(&signals, &sig);
    std::cerr << "pds-server: stopping" << std::endl;
    pds->stop();
    if (gateway) {
        gateway->stop();
    }
    pdsThread.join();
    if (dbThread.joinable()) {
        dbThread.join();
    }
    return 0;
}
