#include "BulkWriteQueue.h"

#include <unordered_map>

using nlohmann::json;

namespace {

bool isWriteAnswer(int status) {
    return status == 201 || status == 200 || status == 202;
}

std::string docsBody(const std::string& inner) {
    std::string body;
    body.reserve(inner.size() + 11);
    body += "{\"docs\":[";
    body += inner;
    body += "]}";
    return body;
}

}  // namespace

BulkWriteQueue::BulkWriteQueue(const CouchClient& couch, std::size_t maxDocs)
    : couch_(couch), maxDocs_(maxDocs == 0 ? 1 : maxDocs) {}

BulkWriteQueue::Written BulkWriteQueue::post(const std::string& dbPath, const json& docs,
                                             const std::vector<std::string>& ids) {
    Waiter self;
    const std::string text = docs.dump();
    self.text = text.size() >= 2 ? text.substr(1, text.size() - 2) : std::string();
    self.count = docs.size();
    self.ids = &ids;

    std::unique_lock<std::mutex> lock(mutex_);
    Database& db = databases_[dbPath];  // std::map: stays put while other entries come and go
    ++db.users;
    db.waiting.push_back(&self);
    while (!self.done) {
        if (db.writing) {
            changed_.wait(lock);
            continue;
        }
        db.writing = true;
        const std::vector<Waiter*> joined = takeJoinable(db);
        lock.unlock();
        try {
            writeJoined(dbPath, joined);
        } catch (...) {
            // Whatever went wrong, the database is free again and each write tries on its own
            // (an error that comes back then reaches the request that made it).
            for (Waiter* w : joined) {
                w->alone = true;
            }
        }
        lock.lock();
        for (Waiter* w : joined) {
            w->done = true;
        }
        db.writing = false;
        changed_.notify_all();
    }
    if (--db.users == 0) {
        databases_.erase(dbPath);
    }
    lock.unlock();
    return self.alone ? postAlone(dbPath, self.text) : std::move(self.written);
}

std::vector<BulkWriteQueue::Waiter*> BulkWriteQueue::takeJoinable(Database& db) {
    std::vector<Waiter*> joined;
    std::unordered_set<std::string> ids;
    std::size_t count = 0;
    while (!db.waiting.empty()) {
        Waiter* next = db.waiting.front();
        if (!joined.empty()) {
            if (count + next->count > maxDocs_) {
                break;
            }
            bool shared = false;
            for (const std::string& id : *next->ids) {
                shared = shared || (!id.empty() && ids.count(id) != 0);
            }
            if (shared) {
                break;
            }
        }
        for (const std::string& id : *next->ids) {
            if (!id.empty()) {
                ids.insert(id);
            }
        }
        count += next->count;
        joined.push_back(next);
        db.waiting.pop_front();
    }
    return joined;
}

void BulkWriteQueue::writeJoined(const std::string& dbPath, const std::vector<Waiter*>& joined) {
    if (joined.size() == 1) {
        joined.front()->written = postAlone(dbPath, joined.front()->text);
        return;
    }
    std::string inner;
    std::size_t count = 0;
    for (const Waiter* w : joined) {
        if (w->text.empty()) {
            continue;
        }
        inner += inner.empty() ? "" : ",";
        inner += w->text;
        count += w->count;
    }
    CouchClient::Reply reply = couch_.post(dbPath + "/_bulk_docs", docsBody(inner));
    json results = isWriteAnswer(reply.status) ? json::parse(reply.body, nullptr, false) : json();
    if (!results.is_array() || results.size() != count) {
        for (Waiter* w : joined) {
            w->alone = true;
        }
        return;
    }
    // The database answers in the order of the documents; results that name a document go to
    // the write that holds it all the same.
    std::unordered_map<std::string, std::size_t> owner;
    std::vector<std::size_t> ownerAt;
    for (std::size_t j = 0; j < joined.size(); ++j) {
        for (const std::string& id : *joined[j]->ids) {
            if (!id.empty()) {
                owner.emplace(id, j);
            }
        }
        ownerAt.insert(ownerAt.end(), joined[j]->count, j);
    }
    for (Waiter* w : joined) {
        w->written.reply.status = reply.status;
        w->written.results = json::array();
    }
    for (std::size_t k = 0; k < results.size(); ++k) {
        const json& r = results[k];
        const auto idIt = r.is_object() ? r.find("id") : r.end();
        const auto named = idIt != r.end() && idIt->is_string()
                               ? owner.find(idIt->get<std::string>())
                               : owner.end();
        const std::size_t j = named != owner.end() ? named->second : ownerAt[k];
        joined[j]->written.results.push_back(std::move(results[k]));
    }
}

BulkWriteQueue::Written BulkWriteQueue::postAlone(const std::string& dbPath,
                                                  const std::string& inner) const {
    Written w;
    w.reply = couch_.post(dbPath + "/_bulk_docs", docsBody(inner));
    w.results = isWriteAnswer(w.reply.status) ? json::parse(w.reply.body, nullptr, false) : json();
    if (w.results.is_discarded()) {
        w.results = json();
    }
    return w;
}
