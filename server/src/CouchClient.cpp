#include "CouchClient.h"

#include <httplib.h>

#include <stdexcept>

namespace {
constexpr std::size_t kMaxIdleConnections = 16;
}

CouchClient::CouchClient(const std::string& url) {
    const auto scheme = url.find("://");
    if (scheme == std::string::npos) {
        throw std::invalid_argument("database URL needs a scheme: " + url);
    }
    std::string rest = url.substr(scheme + 3);
    const auto slash = rest.find('/');
    std::string authority = rest.substr(0, slash);
    if (slash != std::string::npos) {
        prefix_ = rest.substr(slash);
        while (!prefix_.empty() && prefix_.back() == '/') {
            prefix_.pop_back();
        }
    }
    const auto at = authority.rfind('@');
    if (at != std::string::npos) {
        const std::string userinfo = authority.substr(0, at);
        authority = authority.substr(at + 1);
        const auto colon = userinfo.find(':');
        user_ = httplib::detail::decode_url(userinfo.substr(0, colon), false);
        if (colon != std::string::npos) {
            password_ = httplib::detail::decode_url(userinfo.substr(colon + 1), false);
        }
    }
    origin_ = url.substr(0, scheme + 3) + authority;
}

CouchClient::~CouchClient() = default;

std::unique_ptr<httplib::Client> CouchClient::borrow() const {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!idle_.empty()) {
            std::unique_ptr<httplib::Client> cli = std::move(idle_.back());
            idle_.pop_back();
            return cli;
        }
    }
    auto cli = std::make_unique<httplib::Client>(origin_);
    cli->set_keep_alive(true);
    // A request is written in pieces (headers, then body); each goes out at once instead of
    // waiting for the database's delayed acknowledgement of the one before.
    cli->set_tcp_nodelay(true);
    cli->set_connection_timeout(5, 0);
    cli->set_read_timeout(60, 0);
    cli->set_write_timeout(60, 0);
    cli->set_decompress(true);
    if (!user_.empty()) {
        cli->set_basic_auth(user_, password_);
    }
    return cli;
}

void CouchClient::giveBack(std::unique_ptr<httplib::Client> client) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (idle_.size() < kMaxIdleConnections) {
        idle_.push_back(std::move(client));
    }
}

std::string CouchClient::escape(const std::string& element) {
    static const char* kHex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : element) {
        if (std::isalnum(c) || c == '_' || c == '-' || c == '.' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

CouchClient::Reply CouchClient::send(const std::string& method, const std::string& path,
                                     const std::string* body) const {
    std::unique_ptr<httplib::Client> cli = borrow();
    const httplib::Headers headers{{"Accept", "application/json"}};
    const std::string full = prefix_ + path;
    httplib::Result res =
        method == "GET" ? cli->Get(full, headers)
        : method == "PUT"
            ? cli->Put(full, headers, body ? *body : std::string(), "application/json")
        : method == "DELETE"
            ? cli->Delete(full, headers)
            : cli->Post(full, headers, body ? *body : std::string(), "application/json");
    Reply reply;
    if (!res) {
        // A kept-alive connection may have been closed by the database: not given back.
        reply.error = httplib::to_string(res.error());
        return reply;
    }
    reply.status = res->status;
    reply.body = std::move(res->body);
    giveBack(std::move(cli));
    return reply;
}

CouchClient::Reply CouchClient::get(const std::string& path) const {
    return send("GET", path, nullptr);
}
CouchClient::Reply CouchClient::put(const std::string& path) const {
    return send("PUT", path, nullptr);
}
CouchClient::Reply CouchClient::put(const std::string& path, const std::string& jsonBody) const {
    return send("PUT", path, &jsonBody);
}
CouchClient::Reply CouchClient::del(const std::string& path) const {
    return send("DELETE", path, nullptr);
}
CouchClient::Reply CouchClient::post(const std::string& path, const std::string& jsonBody) const {
    return send("POST", path, &jsonBody);
}
