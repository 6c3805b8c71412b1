#include "BulkGateway.h"

#include <nlohmann/json.hpp>

#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "GzipCodec.h"
#include "Text.h"

using nlohmann::json;

namespace {

const char* kConflictReason = "Document update conflict.";
constexpr int kMaxTries = 3;

BulkGateway::Answer error(int status, const std::string& err, const std::string& reason) {
    return {status, json{{"error", err}, {"reason", reason}}.dump()};
}

// The candidate tokens of a cookie header: the whole value, and each "name=value" value.
std::vector<std::string> cookieCandidates(const std::string& header) {
    auto trim = [](std::string s) {
        const auto b = s.find_first_not_of(" \t");
        const auto e = s.find_last_not_of(" \t");
        return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
    };
    std::vector<std::string> out{trim(header)};
    for (const std::string& part : Text::split(header, ';')) {
        const auto eq = part.find('=');
        if (eq != std::string::npos) {
            out.push_back(trim(part.substr(eq + 1)));
        }
    }
    return out;
}

struct Current {
    std::string rev;
    bool deleted = false;
};

// Current revisions of `ids` (one _all_docs call). Missing ids are absent from the map.
std::optional<std::map<std::string, Current>> currentRevisions(const CouchClient& couch,
                                                               const std::string& dbPath,
                                                               const std::vector<std::string>& ids,
                                                               int& status) {
    std::map<std::string, Current> out;
    if (ids.empty()) {
        return out;
    }
    const CouchClient::Reply r = couch.post(dbPath + "/_all_docs", json{{"keys", ids}}.dump());
    status = r.status;
    if (r.status != 200) {
        return std::nullopt;
    }
    const json rows = json::parse(r.body, nullptr, false);
    if (rows.is_discarded() || !rows.contains("rows") || !rows["rows"].is_array()) {
        status = 502;
        return std::nullopt;
    }
    for (const json& row : rows["rows"]) {
        if (!row.contains("id") || !row.contains("value") || !row["value"].is_object()) {
            continue;
        }
        const json& v = row["value"];
        Current c;
        c.rev = v.value("rev", "");
        c.deleted = v.value("deleted", false);
        out[row["id"].get<std::string>()] = c;
    }
    return out;
}

// The database may answer in another order than the documents were sent (PouchDB Server does):
// pair each answer with the sent document of the same id; answers for documents sent without an
// id take the id-less documents in order.
template <typename P>
std::vector<json> matchResults(const json& results, const std::vector<P*>& sent) {
    std::vector<json> out(sent.size());
    std::vector<bool> used(sent.size(), false);
    std::vector<const json*> unnamed;
    for (const json& r : results) {
        const std::string id = r.is_object() ? r.value("id", "") : std::string();
        bool placed = false;
        for (std::size_t k = 0; k < sent.size() && !id.empty(); ++k) {
            const json& d = sent[k]->doc;
            if (!used[k] && d.contains("_id") && d["_id"] == id) {
                out[k] = r;
                used[k] = placed = true;
                break;
            }
        }
        if (!placed) {
            unnamed.push_back(&r);
        }
    }
    std::size_t next = 0;
    for (std::size_t k = 0; k < sent.size(); ++k) {
        if (!used[k]) {
            out[k] = next < unnamed.size() ? *unnamed[next++]
                                           : json{{"error", "unknown_error"},
                                                  {"reason", "The database gave no answer."}};
        }
    }
    return out;
}

BulkGateway::Answer databaseTrouble(int status, const std::string& what) {
    if (status == 404) {
        return error(404, "not_found", "Database does not exist.");
    }
    if (status == 401 || status == 403) {
        return error(502, "bad_gateway", "The database refused the gateway's credentials.");
    }
    std::cerr << "pds-server: database " << what << " failed with status " << status << "\n";
    return error(502, "bad_gateway", "The database could not be reached.");
}

}  // namespace

BulkGateway::BulkGateway(const CouchClient& couch, const SessionToken& tokens,
                         std::size_t maxBodyBytes, std::function<std::int64_t()> clock)
    : couch_(couch), tokens_(tokens), maxBodyBytes_(maxBodyBytes), clock_(std::move(clock)) {}

BulkGateway::Answer BulkGateway::handle(const std::string& database, const std::string& cookie,
                                        const std::string& body) const {
    // 1. The session.
    std::string why = "no session cookie";
    bool authorised = false;
    if (!cookie.empty()) {
        for (const std::string& candidate : cookieCandidates(cookie)) {
            if (!candidate.empty() && tokens_.verify(candidate, database, clock_(), why)) {
                authorised = true;
                break;
            }
        }
    }
    if (!authorised) {
        return error(401, "unauthorized", why);
    }

    // 2. The body: JSON text, or a gzip member of it (when the listener left it compressed).
    std::string text = body;
    if (text.size() >= 2 && static_cast<unsigned char>(text[0]) == 0x1f &&
        static_cast<unsigned char>(text[1]) == 0x8b) {
        std::optional<std::string> plain = GzipCodec::inflate(text, maxBodyBytes_);
        if (!plain) {
            return error(400, "bad_request", "Request body is not a complete gzip stream.");
        }
        text = std::move(*plain);
    }
    json request = json::parse(text, nullptr, false);
    if (request.is_discarded()) {
        return error(400, "bad_request", "Request body is not valid JSON.");
    }
    if (!request.is_object() || !request.contains("docs") || !request["docs"].is_array()) {
        return error(400, "bad_request",
                     "Request body must be a JSON object with a \"docs\" array.");
    }
    json& docs = request["docs"];
    if (docs.empty()) {
        return {201, "[]"};
    }

    // 3. Validate each document; the valid ones are pending. "Owned" documents (no "_rev", or a
    // deletion) get the current revision from here, and are tried again when another write got
    // in between (a race, or the same id twice in one request).
    struct Pending {
        std::size_t slot;
        json doc;
        bool owned;
        int tries = 0;
    };
    std::vector<json> answers(docs.size());
    std::vector<Pending> pending;
    for (std::size_t i = 0; i < docs.size(); ++i) {
        json& d = docs[i];
        if (!d.is_object()) {
            answers[i] = {{"error", "bad_request"}, {"reason", "Document must be a JSON object."}};
        } else if (d.contains("_id") && !d["_id"].is_string()) {
            answers[i] = {{"error", "bad_request"}, {"reason", "Document id must be a string."}};
        } else if (d.value("_deleted", false) == true && !d.contains("_id")) {
            answers[i] = {{"error", "bad_request"}, {"reason", "A deletion needs a document id."}};
        } else {
            const bool owned =
                d.contains("_id") && (!d.contains("_rev") || d.value("_deleted", false) == true);
            pending.push_back({i, std::move(d), owned, 0});
        }
    }

    const std::string dbPath = "/" + CouchClient::escape(database);
    std::vector<std::string> conflicted;
    while (!pending.empty()) {
        // One document per id and round, so that repeated ids apply in request order.
        std::vector<Pending*> round;
        std::vector<Pending> later;
        std::set<std::string> seen;
        for (Pending& p : pending) {
            if (p.doc.contains("_id") && !seen.insert(p.doc["_id"].get<std::string>()).second) {
                continue;
            }
            round.push_back(&p);
        }
        std::vector<std::string> ids;
        for (const Pending* p : round) {
            if (p->owned) {
                ids.push_back(p->doc["_id"].get<std::string>());
            }
        }
        int status = 0;
        const auto current = currentRevisions(couch_, dbPath, ids, status);
        if (!current) {
            return databaseTrouble(status, "revision lookup");
        }
        json forward = json::array();
        std::vector<Pending*> sent;
        std::set<const Pending*> done;
        for (Pending* pp : round) {
            Pending& p = *pp;
            if (p.owned) {
                const std::string id = p.doc["_id"].get<std::string>();
                const auto found = current->find(id);
                const bool live = found != current->end() && !found->second.deleted;
                if (p.doc.value("_deleted", false) == true) {
                    if (!live) {
                        std::string rev =
                            found != current->end() ? found->second.rev : std::string();
                        if (rev.empty() && p.doc.contains("_rev") && p.doc["_rev"].is_string()) {
                            rev = p.doc["_rev"].get<std::string>();
                        }
                        answers[p.slot] = {
                            {"id", id}, {"ok", true}, {"rev", rev.empty() ? "0-0" : rev}};
                        done.insert(&p);
                        continue;
                    }
                    forward.push_back(
                        json{{"_id", id}, {"_rev", found->second.rev}, {"_deleted", true}});
                } else {
                    json doc = p.doc;
                    if (live) {
                        doc["_rev"] = found->second.rev;
                    }
                    forward.push_back(std::move(doc));
                }
            } else {
                forward.push_back(p.doc);
            }
            sent.push_back(&p);
        }
        std::vector<json> results;
        if (!forward.empty()) {
            const CouchClient::Reply r =
                couch_.post(dbPath + "/_bulk_docs", json{{"docs", std::move(forward)}}.dump());
            if (r.status != 201 && r.status != 200 && r.status != 202) {
                return databaseTrouble(r.status, "_bulk_docs");
            }
            const json parsed = json::parse(r.body, nullptr, false);
            if (parsed.is_discarded() || !parsed.is_array() || parsed.size() != sent.size()) {
                return databaseTrouble(502, "_bulk_docs answer");
            }
            results = matchResults(parsed, sent);
        }
        for (std::size_t k = 0; k < sent.size(); ++k) {
            Pending& p = *sent[k];
            const bool conflict = results[k].value("error", "") == "conflict";
            if (conflict && p.owned && ++p.tries < kMaxTries) {
                continue;  // stays pending: another write got in between
            }
            answers[p.slot] = results[k];
            if (conflict) {
                conflicted.push_back(results[k].value("id", ""));
            }
            done.insert(&p);
        }
        for (Pending& p : pending) {
            if (!done.count(&p)) {
                later.push_back(std::move(p));
            }
        }
        pending = std::move(later);
    }

    // 4. Conflicts carry the exact reason and the revision the database holds now.
    if (!conflicted.empty()) {
        int status = 0;
        const auto now = currentRevisions(couch_, dbPath, conflicted, status);
        for (json& a : answers) {
            if (!a.is_object() || a.value("error", "") != "conflict") {
                continue;
            }
            a["reason"] = kConflictReason;
            if (now) {
                const auto it = now->find(a.value("id", ""));
                if (it != now->end()) {
                    a["rev"] = it->second.rev;
                }
            }
        }
    }
    return {201, json(answers).dump()};
}
