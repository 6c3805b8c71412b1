#include "BulkGateway.h"

#include <iostream>
#include <map>
#include <set>

#include "BulkWriteQueue.h"
#include "GzipCodec.h"
#include "JsonDepth.h"
#include "Text.h"

using nlohmann::json;

namespace {

const char* kConflictReason = "Document update conflict.";
constexpr int kMaxTries = 3;

BulkGateway::Answer error(int status, const std::string& err, const std::string& reason) {
    return {status, json{{"error", err}, {"reason", reason}}.dump()};
}

json docError(const std::string& id, const std::string& err, const std::string& reason) {
    json e{{"error", err}, {"reason", reason}};
    if (!id.empty()) {
        e["id"] = id;
    }
    return e;
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

// "<generation>-<hash>", the only revision form the database takes.
bool isRevision(const std::string& rev) {
    const auto dash = rev.find('-');
    if (dash == std::string::npos || dash == 0 || dash + 1 >= rev.size() || dash > 9) {
        return false;
    }
    for (std::size_t i = 0; i < dash; ++i) {
        if (rev[i] < '0' || rev[i] > '9') {
            return false;
        }
    }
    return true;
}

// Checks one element of "docs"; returns the error element, or nothing and fills `item`.
std::optional<json> checkDocument(json& d, BulkGateway::Item& item) {
    if (!d.is_object()) {
        return docError("", "bad_request", "Document must be a JSON object.");
    }
    std::string id;
    if (d.contains("_id")) {
        if (!d["_id"].is_string()) {
            return docError("", "bad_request", "Document id must be a string.");
        }
        id = d["_id"].get<std::string>();
        if (id.empty()) {
            return docError("", "bad_request", "Document id must not be empty.");
        }
        if (id[0] == '_') {
            return docError(id, "forbidden",
                            "Ids starting with _ (design and other reserved documents) are "
                            "not accepted.");
        }
    }
    for (const auto& [key, value] : d.items()) {
        if (!key.empty() && key[0] == '_' && key != "_id" && key != "_rev" && key != "_deleted") {
            return docError(id, "doc_validation", "Bad special document member: " + key);
        }
    }
    const auto deleted = d.find("_deleted");
    if (deleted != d.end() && !deleted->is_boolean()) {
        return docError(id, "bad_request", "_deleted must be true or false.");
    }
    const bool deletion = deleted != d.end() && deleted->get<bool>();
    const auto rev = d.find("_rev");
    if (rev != d.end() && (!rev->is_string() || !isRevision(rev->get<std::string>()))) {
        return docError(id, "bad_request", "Invalid rev format");
    }
    if (id.empty() && (deletion || rev != d.end())) {
        return docError("", "bad_request",
                        deletion ? "A deletion needs a document id." : "A _rev needs an _id.");
    }
    item.id = id;
    item.deletion = deletion;
    item.owned = !id.empty() && (rev == d.end() || deletion);
    item.doc = std::move(d);
    return std::nullopt;
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
        if (!row.is_object() || !row.contains("id") || !row["id"].is_string() ||
            !row.contains("value") || !row["value"].is_object()) {
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
// pair each answer with the sent document of the same id (ids are unique within one write);
// answers for documents sent without an id take the id-less documents in order.
std::vector<json> matchResults(const json& results, const std::vector<BulkGateway::Item*>& sent) {
    std::vector<json> out(sent.size());
    std::map<std::string, std::size_t> byId;
    for (std::size_t k = 0; k < sent.size(); ++k) {
        if (!sent[k]->id.empty()) {
            byId[sent[k]->id] = k;
        }
    }
    std::vector<bool> used(sent.size(), false);
    std::vector<const json*> unnamed;
    for (const json& r : results) {
        const auto idIt = r.is_object() ? r.find("id") : r.end();
        const auto it = (idIt != r.end() && idIt->is_string()) ? byId.find(idIt->get<std::string>())
                                                               : byId.end();
        if (it != byId.end() && !used[it->second]) {
            out[it->second] = r;
            used[it->second] = true;
        } else {
            unnamed.push_back(&r);
        }
    }
    std::size_t next = 0;
    for (std::size_t k = 0; k < sent.size(); ++k) {
        if (!used[k]) {
            out[k] = next < unnamed.size()
                         ? *unnamed[next++]
                         : docError(sent[k]->id, "unknown_error", "The database gave no answer.");
        }
    }
    return out;
}

BulkGateway::Answer databaseTrouble(int status, const std::string& what) {
    if (status == 404) {
        return error(404, "not_found", "Database does not exist.");
    }
    if (status == 401 || status == 403) {
        std::cerr << "pds-server: database " << what << " refused the gateway's credentials\n";
        return error(502, "bad_gateway", "The database refused the gateway's credentials.");
    }
    std::cerr << "pds-server: database " << what << " failed with status " << status << "\n";
    return error(502, "bad_gateway", "The database could not be reached.");
}

bool isWriteAnswer(int status) {
    return status == 201 || status == 200 || status == 202;
}

// The database refused a whole write (4xx other than auth and missing database).
bool isRefusal(int status) {
    return status >= 400 && status < 500 && status != 401 && status != 403 && status != 404;
}

// What one round sends: every pending item, the owned ones on the revision the database holds
// now. A deletion of a document the database does not hold is answered at once and not sent.
json forwardRound(const std::vector<BulkGateway::Item*>& pending,
                  const std::map<std::string, Current>& current, std::vector<json>& answers,
                  std::vector<BulkGateway::Item*>& sent) {
    json forward = json::array();
    for (BulkGateway::Item* p : pending) {
        if (p->owned) {
            const auto found = current.find(p->id);
            const bool live = found != current.end() && !found->second.deleted;
            if (p->deletion) {
                if (!live) {
                    std::string rev = found != current.end() ? found->second.rev : std::string();
                    if (rev.empty() && p->doc.contains("_rev")) {
                        rev = p->doc["_rev"].get<std::string>();
                    }
                    answers[p->slot] = {
                        {"id", p->id}, {"ok", true}, {"rev", rev.empty() ? "0-0" : rev}};
                    continue;
                }
                forward.push_back(
                    json{{"_id", p->id}, {"_rev", found->second.rev}, {"_deleted", true}});
            } else {
                json doc = p->doc;
                if (live) {
                    doc["_rev"] = found->second.rev;
                } else {
                    doc.erase("_rev");
                }
                forward.push_back(std::move(doc));
            }
        } else {
            forward.push_back(p->doc);
        }
        sent.push_back(p);
    }
    return forward;
}

// Whether the database holds a live document that one of `pending` replaces without "_rev".
bool storesAnyInsert(const std::vector<BulkGateway::Item*>& pending,
                     const std::map<std::string, Current>& current) {
    for (const BulkGateway::Item* p : pending) {
        const auto found = p->owned && !p->deletion ? current.find(p->id) : current.end();
        if (found != current.end() && !found->second.deleted) {
            return true;
        }
    }
    return false;
}

// Posts one round; `results` gets one answer per sent document. When the database refuses the
// whole write, each document goes on its own so that each gets its answer.
std::optional<BulkGateway::Answer> postRound(const CouchClient& couch, BulkWriteQueue& writes,
                                             const std::string& dbPath, const json& forward,
                                             const std::vector<BulkGateway::Item*>& sent,
                                             std::vector<json>& results) {
    std::vector<std::string> ids;
    ids.reserve(sent.size());
    for (const BulkGateway::Item* p : sent) {
        ids.push_back(p->id);
    }
    const BulkWriteQueue::Written w = writes.post(dbPath, forward, ids);
    const CouchClient::Reply& r = w.reply;
    const json& parsed = w.results;
    if (isWriteAnswer(r.status) && parsed.is_array() && parsed.size() == sent.size()) {
        results = matchResults(parsed, sent);
    } else if (isRefusal(r.status)) {
        // One document spoilt the write: each on its own, so that each gets its answer.
        for (std::size_t k = 0; k < sent.size(); ++k) {
            const CouchClient::Reply one = couch.post(
                dbPath + "/_bulk_docs", json{{"docs", json::array({forward[k]})}}.dump());
            const json p1 = json::parse(one.body, nullptr, false);
            if (isWriteAnswer(one.status) && p1.is_array() && p1.size() == 1) {
                results.push_back(p1[0]);
            } else if (isRefusal(one.status)) {
                results.push_back(docError(
                    sent[k]->id,
                    p1.is_object() ? p1.value("error", "bad_request") : std::string("bad_request"),
                    p1.is_object() ? p1.value("reason", "Refused by the database.")
                                   : std::string("Refused by the database.")));
            } else {
                return databaseTrouble(one.status, "_bulk_docs");
            }
        }
    } else {
        return databaseTrouble(isWriteAnswer(r.status) ? 502 : r.status, "_bulk_docs");
    }
    return std::nullopt;
}

// Conflicts carry the exact reason and the revision the database holds now.
void explainConflicts(const CouchClient& couch, const std::string& dbPath,
                      const std::vector<std::string>& conflicted, std::vector<json>& answers) {
    int status = 0;
    const auto now = currentRevisions(couch, dbPath, conflicted, status);
    for (json& a : answers) {
        if (!a.is_object() || a.value("error", "") != "conflict") {
            continue;
        }
        a["reason"] = kConflictReason;
        const auto idIt = a.find("id");
        if (now && idIt != a.end() && idIt->is_string()) {
            const auto it = now->find(idIt->get<std::string>());
            if (it != now->end()) {
                a["rev"] = it->second.rev;
            }
        }
    }
}

}  // namespace

BulkGateway::BulkGateway(const CouchClient& couch, const SessionToken& tokens,
                         std::size_t maxBodyBytes, std::function<std::int64_t()> clock)
    : couch_(couch),
      tokens_(tokens),
      maxBodyBytes_(maxBodyBytes),
      clock_(std::move(clock)),
      writes_(couch) {}

std::optional<BulkGateway::Answer> BulkGateway::parse(const std::string& body,
                                                      std::size_t maxBodyBytes, Batch& batch) {
    batch = Batch{};
    // JSON text, or a gzip member of it (when the listener left it compressed).
    std::string inflated;
    const std::string* text = &body;
    if (body.size() >= 2 && static_cast<unsigned char>(body[0]) == 0x1f &&
        static_cast<unsigned char>(body[1]) == 0x8b) {
        std::optional<std::string> plain = GzipCodec::inflate(body, maxBodyBytes);
        if (!plain) {
            return error(400, "bad_request", "Request body is not a complete gzip stream.");
        }
        inflated = std::move(*plain);
        text = &inflated;
    }
    if (!JsonDepth::within(*text)) {
        return error(400, "bad_request", "Request body nests deeper than 64 levels.");
    }
    json request = json::parse(*text, nullptr, false);
    if (request.is_discarded()) {
        return error(400, "bad_request", "Request body is not valid JSON.");
    }
    const auto docsIt = request.is_object() ? request.find("docs") : request.end();
    if (docsIt == request.end() || !docsIt->is_array()) {
        return error(400, "bad_request",
                     "Request body must be a JSON object with a \"docs\" array.");
    }
    json& docs = *docsIt;
    batch.answers.resize(docs.size());
    std::map<std::string, std::size_t> lastOfId;  // id -> index in batch.items
    for (std::size_t i = 0; i < docs.size(); ++i) {
        Item item;
        item.slot = i;
        if (std::optional<json> refused = checkDocument(docs[i], item)) {
            batch.answers[i] = std::move(*refused);
            continue;
        }
        if (!item.id.empty()) {
            const auto [it, fresh] = lastOfId.emplace(item.id, batch.items.size());
            if (!fresh) {
                // A later occurrence replaces the earlier one, which takes its answer.
                Item& earlier = batch.items[it->second];
                batch.followers.emplace_back(earlier.slot, i);
                earlier = std::move(item);
                continue;
            }
        }
        batch.items.push_back(std::move(item));
    }
    // Earlier occurrences of an earlier occurrence follow the last one too.
    std::map<std::size_t, std::size_t> leader;
    for (auto it = batch.followers.rbegin(); it != batch.followers.rend(); ++it) {
        const auto found = leader.find(it->second);
        it->second = found != leader.end() ? found->second : it->second;
        leader[it->first] = it->second;
    }
    return std::nullopt;
}

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

    // 2. The body.
    Batch batch;
    if (std::optional<Answer> refused = parse(body, maxBodyBytes_, batch)) {
        return *refused;
    }
    if (batch.answers.empty()) {
        return {201, "[]"};
    }

    // 3. The writes.
    if (std::optional<Answer> trouble = write("/" + CouchClient::escape(database), batch)) {
        return *trouble;
    }
    for (const auto& [slot, leaderSlot] : batch.followers) {
        batch.answers[slot] = batch.answers[leaderSlot];
    }
    return {201, json(batch.answers).dump()};
}

std::optional<BulkGateway::Answer> BulkGateway::write(const std::string& dbPath,
                                                      Batch& batch) const {
    std::vector<Item*> pending;
    for (Item& item : batch.items) {
        pending.push_back(&item);
    }
    std::vector<json>& answers = batch.answers;
    std::vector<std::string> conflicted;
    // Round 0 writes the documents without "_rev" as new ones, looking up deletions only; those
    // that were stored already conflict and go to the rounds that look their revisions up.
    bool foundStored = false;
    for (int round = hints_.expectsStored(dbPath) ? 1 : 0; !pending.empty(); ++round) {
        std::vector<std::string> ids;
        for (const Item* p : pending) {
            if (p->owned && (round > 0 || p->deletion)) {
                ids.push_back(p->id);
            }
        }
        int status = 0;
        const auto current = currentRevisions(couch_, dbPath, ids, status);
        if (!current) {
            return databaseTrouble(status, "revision lookup");
        }
        foundStored = foundStored || storesAnyInsert(pending, *current);
        std::vector<Item*> sent;
        const json forward = forwardRound(pending, *current, answers, sent);
        std::vector<json> results;
        if (!forward.empty()) {
            if (std::optional<Answer> trouble =
                    postRound(couch_, writes_, dbPath, forward, sent, results)) {
                return trouble;
            }
        }
        std::vector<Item*> again;
        for (std::size_t k = 0; k < sent.size(); ++k) {
            Item* p = sent[k];
            const bool conflict =
                results[k].is_object() && results[k].value("error", "") == "conflict";
            if (conflict && p->owned && round < kMaxTries) {
                foundStored = foundStored || (round == 0 && !p->deletion);
                again.push_back(p);  // stored already, or another write got in between
                continue;
            }
            answers[p->slot] = results[k];
            if (conflict) {
                conflicted.push_back(p->id);
            }
        }
        pending = std::move(again);
    }
    hints_.remember(dbPath, foundStored);
    if (!conflicted.empty()) {
        explainConflicts(couch_, dbPath, conflicted, answers);
    }
    return std::nullopt;
}
