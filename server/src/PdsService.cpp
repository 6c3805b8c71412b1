#include "PdsService.h"

#include <nlohmann/json.hpp>

#include <iostream>

#include "JsonDepth.h"
#include "Text.h"

using nlohmann::json;

namespace {

constexpr std::size_t kJournalBodyBytes = 16 * 1024;
constexpr std::size_t kMaxSecretBytes = 1024;
const char* kDbNetworkError = "PDSS DB Network Error";

PdsService::Answer message(int status, const std::string& text) {
    return {status, json{{"message", text}}.dump()};
}

// Parses a PDS request body; on error fills `answer` and returns false.
bool parseRequest(const std::string& op, const std::string& body, json& req,
                  PdsService::Answer& answer) {
    if (!JsonDepth::within(body)) {
        answer = message(400, op + ": request body nests too deeply");
        return false;
    }
    req = json::parse(body, nullptr, false);
    if (req.is_discarded() || !req.is_object()) {
        answer = message(400, op + ": request body is not a JSON object");
        return false;
    }
    if (!req.contains("device_id") || !req["device_id"].is_string() ||
        req["device_id"].get<std::string>().empty()) {
        answer = message(400, op + ": device_id missing");
        return false;
    }
    if (req.contains("request") && !req["request"].is_object()) {
        answer = message(400, op + ": request must be an object");
        return false;
    }
    if (req.contains("force") && !req["force"].is_boolean()) {
        answer = message(400, op + ": force must be true or false");
        return false;
    }
    if (req.contains("device_secret") &&
        (!req["device_secret"].is_string() ||
         req["device_secret"].get<std::string>().size() > kMaxSecretBytes)) {
        answer = message(400, op + ": device_secret must be a string");
        return false;
    }
    return true;
}

std::string requestValue(const json& req, const char* key) {
    if (!req.contains("request")) {
        return {};
    }
    const json& r = req["request"];
    auto it = r.find(key);
    return (it != r.end() && it->is_string()) ? it->get<std::string>() : std::string();
}

bool isCreatedOrExists(int status) {
    return status == 201 || status == 202 || status == 412;
}

}  // namespace

PdsService::PdsService(Config config, const CouchClient& couch, const SessionToken& tokens,
                       const DeviceRegistry& registry, ForceLimiter& forceLimiter,
                       ForceLimiter& newDevices, std::function<std::int64_t()> clock)
    : config_(std::move(config)),
      couch_(couch),
      tokens_(tokens),
      registry_(registry),
      limiter_(forceLimiter),
      newDevices_(newDevices),
      clock_(std::move(clock)) {
    if (config_.policy.empty()) {
        config_.policy = defaultPolicy();
    }
}

std::string PdsService::databaseFor(const std::string& deviceId) {
    return "plm_" + Text::sha256Hex(deviceId).substr(0, 32);
}

std::string PdsService::defaultPolicy() {
    return json{{"syncpolicy",
                 {{"parameters",
                   {{"D", 1},
                    {"E", 10},
                    {"F", 60},
                    {"G", 3},
                    {"H", 24},
                    {"M", 500},
                    {"R", 2},
                    {"T", 3600}}}}}}
        .dump();
}

void PdsService::setFault(const std::string& op, Fault fault) {
    std::lock_guard<std::mutex> lock(mutex_);
    faults_[op] = std::move(fault);
}

void PdsService::clearFaults() {
    std::lock_guard<std::mutex> lock(mutex_);
    faults_.clear();
}

bool PdsService::takeFault(const std::string& op, Answer& answer) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = faults_.find(op);
    if (it == faults_.end()) {
        return false;
    }
    Fault f = it->second;
    if (it->second.remaining > 0 && --it->second.remaining == 0) {
        faults_.erase(it);
    }
    if (f.status == 200) {
        answer = {200, json{{"reason", f.reason}, {"result", f.result}}.dump()};
    } else {
        answer = message(f.status, f.message);
    }
    return true;
}

void PdsService::record(const std::string& op, const std::string& body) {
    if (config_.journalSize == 0) {
        return;
    }
    json entry{{"op", op}};
    json parsed = body.size() <= kJournalBodyBytes && JsonDepth::within(body)
                      ? json::parse(body, nullptr, false)
                      : json(json::value_t::discarded);
    if (parsed.is_discarded()) {
        entry["body"] = body.substr(0, kJournalBodyBytes);
    } else {
        if (parsed.is_object() && parsed.contains("device_secret")) {
            parsed["device_secret"] = "(not kept)";
        }
        entry["body"] = std::move(parsed);
    }
    std::string line = entry.dump(-1, ' ', false, json::error_handler_t::replace);
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(std::move(line));
    while (calls_.size() > config_.journalSize) {
        calls_.pop_front();
    }
}

bool PdsService::admit(const std::string& op, const std::string& body, const std::string* client,
                       json& req, Answer& answer) {
    record(op, body);
    if (!parseRequest(op, body, req, answer)) {
        return false;
    }
    const std::string deviceId = req["device_id"];
    const std::string secret = req.value("device_secret", "");
    if (secret.empty()) {
        answer = message(401, op + ": device_secret missing");
        return false;
    }
    DeviceRegistry::Verdict verdict = registry_.check(deviceId, secret);
    if (verdict == DeviceRegistry::Verdict::Unknown && client) {
        const std::int64_t wait = newDevices_.admit(*client, clock_());
        if (wait > 0) {
            std::cerr << "pds-server: " << *client << " opened too many new devices\n";
            answer = message(429, op + ": too many new devices from this address. Retry after " +
                                      std::to_string(wait));
            return false;
        }
        verdict = registry_.bind(deviceId, secret);
    }
    switch (verdict) {
        case DeviceRegistry::Verdict::Match:
            return true;
        case DeviceRegistry::Verdict::Mismatch:
            std::cerr << "pds-server: " << op << " refused: wrong device secret\n";
            answer = message(403, op + ": device secret does not match");
            return false;
        case DeviceRegistry::Verdict::Unknown:
            answer = message(403, op + ": unknown device (open it first)");
            return false;
        case DeviceRegistry::Verdict::Unreachable:
            break;
    }
    answer = message(503, op + ": " + kDbNetworkError);
    return false;
}

std::string PdsService::callLog() const {
    std::lock_guard<std::mutex> lock(mutex_);
    json out = json::array();
    for (const auto& c : calls_) {
        out.push_back(json::parse(c));
    }
    return out.dump();
}

PdsService::Answer PdsService::open(const std::string& body, const std::string& client) {
    json req;
    Answer answer;
    if (!admit("open", body, &client, req, answer)) {
        return answer;
    }
    const std::string deviceId = req["device_id"];
    const bool force = req.value("force", false);
    const std::int64_t now = clock_();
    if (force) {
        const std::int64_t wait = limiter_.admit(deviceId, now);
        if (wait > 0) {
            return message(429, "Force Sync Limit exceeded. Retry after " + std::to_string(wait));
        }
    }
    if (takeFault("open", answer)) {
        return answer;
    }
    const std::string db = databaseFor(deviceId);
    const CouchClient::Reply created = couch_.put("/" + CouchClient::escape(db));
    if (!isCreatedOrExists(created.status)) {
        std::cerr << "pds-server: creating " << db << " failed: status " << created.status << " "
                  << created.error << created.body << "\n";
        return message(503, std::string("open: ") + kDbNetworkError);
    }
    json out{{"reason", "success"},
             {"result", "0"},
             {"cookie", tokens_.issue(deviceId, db, now + config_.sessionTtlSeconds)},
             {"dburl", config_.dbUrlBase + "/" + db},
             {"plmid", Text::randomId()},
             {"policy", config_.policy}};
    return {200, out.dump()};
}

PdsService::Answer PdsService::close(const std::string& body) {
    json req;
    Answer answer;
    if (!admit("close", body, nullptr, req, answer)) {
        return answer;
    }
    if (takeFault("close", answer)) {
        return answer;
    }
    return {200, json{{"reason", "success"}, {"result", "0"}}.dump()};
}

PdsService::Answer PdsService::wipe(const std::string& body) {
    json req;
    Answer answer;
    if (!admit("wipe", body, nullptr, req, answer)) {
        return answer;
    }
    if (takeFault("wipe", answer)) {
        return answer;
    }
    const bool deleteAll = requestValue(req, "deleteall") == "true";
    const bool reset = requestValue(req, "resetplm") == "true";
    if (!deleteAll && !reset) {
        return message(400, "wipe: request needs resetplm or deleteall");
    }
    const std::string path = "/" + CouchClient::escape(databaseFor(req["device_id"]));
    const CouchClient::Reply removed = couch_.del(path);
    if (removed.status != 200 && removed.status != 202 && removed.status != 404) {
        return message(503, std::string("wipe: ") + kDbNetworkError);
    }
    if (reset) {
        if (!deleteAll && !isCreatedOrExists(couch_.put(path).status)) {
            return message(503, std::string("wipe: ") + kDbNetworkError);
        }
    }
    return {200, json{{"reason", "success"}, {"result", "0"}}.dump()};
}
