#include "DeviceRegistry.h"

#include <nlohmann/json.hpp>

#include <iostream>

#include "PdsService.h"
#include "Text.h"

using nlohmann::json;

namespace {

// Compares two strings in time that depends only on their lengths.
bool sameText(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) {
        return false;
    }
    unsigned char diff = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    }
    return diff == 0;
}

}  // namespace

DeviceRegistry::DeviceRegistry(const CouchClient& couch) : couch_(couch) {}

std::string DeviceRegistry::path(const std::string& deviceId) const {
    return std::string("/") + kDatabase + "/" + PdsService::databaseFor(deviceId);
}

bool DeviceRegistry::prepare() const {
    const int status = couch_.put(std::string("/") + kDatabase).status;
    return status == 201 || status == 202 || status == 412;
}

DeviceRegistry::Verdict DeviceRegistry::check(const std::string& deviceId,
                                              const std::string& secret) const {
    const CouchClient::Reply r = couch_.get(path(deviceId));
    if (r.status == 404) {
        return Verdict::Unknown;
    }
    const json doc = r.status == 200 ? json::parse(r.body, nullptr, false) : json();
    if (!doc.is_object() || !doc.contains("secret_sha256") || !doc["secret_sha256"].is_string()) {
        std::cerr << "pds-server: device registry lookup failed: status " << r.status << " "
                  << r.error << "\n";
        return Verdict::Unreachable;
    }
    return sameText(doc["secret_sha256"].get<std::string>(), Text::sha256Hex(secret))
               ? Verdict::Match
               : Verdict::Mismatch;
}

DeviceRegistry::Verdict DeviceRegistry::bind(const std::string& deviceId,
                                             const std::string& secret) const {
    const json doc{{"secret_sha256", Text::sha256Hex(secret)}};
    CouchClient::Reply r = couch_.put(path(deviceId), doc.dump());
    if (r.status == 404 && prepare()) {  // the registry database was not there yet
        r = couch_.put(path(deviceId), doc.dump());
    }
    if (r.status == 201 || r.status == 202) {
        return Verdict::Match;
    }
    if (r.status == 409) {
        return check(deviceId, secret);
    }
    std::cerr << "pds-server: device registry write failed: status " << r.status << " " << r.error
              << "\n";
    return Verdict::Unreachable;
}

DeviceRegistry::Verdict DeviceRegistry::reset(const std::string& deviceId) const {
    const CouchClient::Reply r = couch_.get(path(deviceId));
    if (r.status == 404) {
        return Verdict::Unknown;
    }
    const json doc = r.status == 200 ? json::parse(r.body, nullptr, false) : json();
    if (!doc.is_object() || !doc.contains("_rev") || !doc["_rev"].is_string()) {
        return Verdict::Unreachable;
    }
    const int status =
        couch_.del(path(deviceId) + "?rev=" + CouchClient::escape(doc["_rev"].get<std::string>()))
            .status;
    return status == 200 || status == 202 ? Verdict::Match : Verdict::Unreachable;
}
