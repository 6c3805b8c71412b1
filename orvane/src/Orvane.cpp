#include "orvane/Orvane.h"

#include <curl/curl.h>
#include <json-glib/json-glib.h>
#include <pelio/CHandles.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "DeviceSecret.h"
#include "OrvaneReply.h"

namespace {

constexpr long kConnectTimeoutSeconds = 10;
constexpr long kTotalTimeoutSeconds = 60;

using pelio::CurlEasy;
using pelio::CurlList;
using pelio::GCharPtr;
using pelio::GErrorPtr;
using pelio::JsonNodePtr;
using BuilderPtr = pelio::GObjectPtr<JsonBuilder>;
using GeneratorPtr = pelio::GObjectPtr<JsonGenerator>;
using ParserPtr = pelio::GObjectPtr<JsonParser>;

// Which optional members a call carries in its body.
struct BodyShape {
    bool withForce;
    bool withModes;
};

size_t appendToString(char* data, size_t size, size_t count, void* userdata) {
    static_cast<std::string*>(userdata)->append(data, size * count);
    return size * count;
}

bool fileExists(const std::string& path) {
    struct stat st {};
    return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string toJsonText(JsonNode* node) {
    GeneratorPtr gen(json_generator_new());
    json_generator_set_root(gen.get(), node);
    GCharPtr text(json_generator_to_data(gen.get(), nullptr));
    return text ? std::string(text.get()) : std::string();
}

// True when no array or object of `text` nests deeper than `limit` (strings skipped). The
// parser and the generator recurse per level, so an answer is checked before either sees it.
bool withinDepth(const std::string& text, std::size_t limit) {
    std::size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if ((c == '[' || c == '{') && ++depth > limit) {
            return false;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return true;
}

// Parses `text`; returns the root node or null (non-JSON, or nested too deeply).
JsonNodePtr parseJson(const std::string& text) {
    if (!withinDepth(text, 64)) {
        return nullptr;
    }
    ParserPtr parser(json_parser_new());
    GError* raw = nullptr;
    if (!json_parser_load_from_data(parser.get(), text.data(), static_cast<gssize>(text.size()),
                                    &raw)) {
        GErrorPtr err(raw);
        return nullptr;
    }
    JsonNode* root = json_parser_get_root(parser.get());
    return root ? JsonNodePtr(json_node_copy(root)) : nullptr;
}

// Text of a member value: strings as they are, anything else as its JSON text.
std::string memberText(JsonNode* node) {
    if (JSON_NODE_HOLDS_VALUE(node) && json_node_get_value_type(node) == G_TYPE_STRING) {
        return json_node_get_string(node);
    }
    if (JSON_NODE_HOLDS_NULL(node)) {
        return std::string();
    }
    return toJsonText(node);
}

// The server names two refusals that change what the caller does next: its database is out of
// reach ("<op>: PDSS DB Network Error"), or a forced sync must wait ("Force Sync Limit exceeded.
// Retry after N").
OrvaneErrorCode refusalCode(const std::string& op, const std::string& message) {
    if (message == op + ": PDSS DB Network Error") {
        return OrvaneErrorCode::DatabaseUnreachable;
    }
    if (message.find("Force Sync Limit exceeded. Retry after") != std::string::npos) {
        return OrvaneErrorCode::ForceLimited;
    }
    return OrvaneErrorCode::Refused;
}

}  // namespace

OrvaneReply orvaneReadReply(const std::string& op, long status, const std::string& answer,
                            std::map<std::string, std::string>& result, std::string& message) {
    result.clear();
    JsonNodePtr root = parseJson(answer);
    JsonObject* obj =
        (root && JSON_NODE_HOLDS_OBJECT(root.get())) ? json_node_get_object(root.get()) : nullptr;
    if (status != 200) {
        if (obj && json_object_has_member(obj, "message")) {
            message = memberText(json_object_get_member(obj, "message"));
        }
        if (message.empty()) {
            message = op + ": HTTP " + std::to_string(status);
        }
        return OrvaneReply::Refused;
    }
    if (!obj) {
        return OrvaneReply::Malformed;
    }
    GList* members = json_object_get_members(obj);
    for (GList* m = members; m; m = m->next) {
        const char* name = static_cast<const char*>(m->data);
        result[name] = memberText(json_object_get_member(obj, name));
    }
    g_list_free(members);
    return OrvaneReply::Result;
}

struct Orvane::Impl {
    std::string host;
    int port = 0;
    std::string deviceId;
    OrvaneCallbacks* callbacks = nullptr;
    bool tls = true;
    std::string certificatePath;
    std::string proxyHost;
    int proxyPort = 0;
    int logLevel = 0;
    CurlEasy curl;
    std::string secret;  // read or created at the first call

    void log(int level, const std::string& message) const {
        if (callbacks && level <= logLevel) {
            callbacks->onLog(level, message);
        }
    }

    // The device secret guards the device's data on the server; without it the server refuses.
    void loadSecret() {
        if (secret.empty()) {
            std::string error;
            secret = DeviceSecret::loadOrCreate(DeviceSecret::defaultPath(), error);
            if (secret.empty()) {
                log(1, error);
            }
        }
    }

    std::string body(const std::string& locale, const std::map<std::string, std::string>& request,
                     BodyShape shape, bool force, bool companion, bool standalone) const {
        BuilderPtr b(json_builder_new());
        json_builder_begin_object(b.get());
        json_builder_set_member_name(b.get(), "device_id");
        json_builder_add_string_value(b.get(), deviceId.c_str());
        json_builder_set_member_name(b.get(), "locale");
        json_builder_add_string_value(b.get(), locale.c_str());
        if (!secret.empty()) {
            json_builder_set_member_name(b.get(), "device_secret");
            json_builder_add_string_value(b.get(), secret.c_str());
        }
        if (shape.withForce) {
            json_builder_set_member_name(b.get(), "force");
            json_builder_add_boolean_value(b.get(), force);
        }
        if (shape.withModes) {
            json_builder_set_member_name(b.get(), "companion");
            json_builder_add_boolean_value(b.get(), companion);
            json_builder_set_member_name(b.get(), "standalone");
            json_builder_add_boolean_value(b.get(), standalone);
        }
        json_builder_set_member_name(b.get(), "request");
        json_builder_begin_object(b.get());
        for (const auto& [key, value] : request) {
            json_builder_set_member_name(b.get(), key.c_str());
            json_builder_add_string_value(b.get(), value.c_str());
        }
        json_builder_end_object(b.get());
        json_builder_end_object(b.get());
        JsonNodePtr root(json_builder_get_root(b.get()));
        return toJsonText(root.get());
    }

    // Posts `payload` to /pds/<op> and fills `result` from a 200 answer; throws otherwise.
    void call(const std::string& op, const std::string& payload,
              std::map<std::string, std::string>& result) {
        result.clear();
        CURL* c = curl.get();
        curl_easy_reset(c);

        const std::string url = "https://" + host + ":" + std::to_string(port) + "/pds/" + op;
        char errorBuffer[CURL_ERROR_SIZE] = {0};
        std::string answer;
        CurlList headers(curl_slist_append(nullptr, "Content-Type: application/json"));
        if (!headers || !curl_slist_append(headers.get(), "Accept: application/json")) {
            throw OrvaneError(OrvaneErrorCode::Setup, op + ": out of memory");
        }

        curl_easy_setopt(c, CURLOPT_URL, url.c_str());
        curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(c, CURLOPT_ERRORBUFFER, errorBuffer);
        curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(c, CURLOPT_POST, 1L);
        curl_easy_setopt(c, CURLOPT_POSTFIELDS, payload.c_str());
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(payload.size()));
        curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, appendToString);
        curl_easy_setopt(c, CURLOPT_WRITEDATA, &answer);
        curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
        curl_easy_setopt(c, CURLOPT_TIMEOUT, kTotalTimeoutSeconds);
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
        if (fileExists(certificatePath)) {
            curl_easy_setopt(c, CURLOPT_CAINFO, certificatePath.c_str());
            log(5, op + ": CA bundle " + certificatePath);
        } else {
            log(5, op + ": system CA store");
        }
        if (!proxyHost.empty() && proxyPort > 0) {
            curl_easy_setopt(c, CURLOPT_PROXY, proxyHost.c_str());
            curl_easy_setopt(c, CURLOPT_PROXYPORT, static_cast<long>(proxyPort));
            curl_easy_setopt(c, CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTP));
            log(4, op + ": through proxy " + proxyHost + ":" + std::to_string(proxyPort));
        } else {
            // An empty proxy also keeps proxy variables of the environment out.
            curl_easy_setopt(c, CURLOPT_PROXY, "");
        }

        log(4, op + ": POST " + url);
        const CURLcode rc = curl_easy_perform(c);
        if (rc != CURLE_OK) {
            const std::string reason = errorBuffer[0] ? errorBuffer : curl_easy_strerror(rc);
            log(1, op + ": transport failure: " + reason);
            if (callbacks) {
                callbacks->onSessionEvent(op, 0);
            }
            throw OrvaneError(OrvaneErrorCode::Transport, op + ": " + reason);
        }
        long status = 0;
        curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
        log(4, op + ": HTTP " + std::to_string(status));
        if (callbacks) {
            callbacks->onSessionEvent(op, status);
        }

        std::string message;
        switch (orvaneReadReply(op, status, answer, result, message)) {
            case OrvaneReply::Result:
                break;
            case OrvaneReply::Refused:
                log(2, op + ": refused: " + message);
                throw OrvaneError(refusalCode(op, message), message);
            case OrvaneReply::Malformed:
                log(1, op + ": answer is not a JSON object");
                throw OrvaneError(OrvaneErrorCode::BadReply, op + ": malformed answer from server");
        }
        log(4, op + ": " + std::to_string(result.size()) + " result entries");
    }
};

Orvane::Orvane(const std::string& serverHost, int port, const std::string& deviceId,
               OrvaneCallbacks* callbacks, bool tls, const std::string& certificatePath,
               const std::string& proxyHost, int proxyPort)
    : impl_(std::make_unique<Impl>()) {
    impl_->host = serverHost;
    impl_->port = port;
    impl_->deviceId = deviceId;
    impl_->callbacks = callbacks;
    impl_->tls = tls;
    impl_->certificatePath = certificatePath;
    impl_->proxyHost = proxyHost;
    impl_->proxyPort = proxyPort;
    impl_->curl.reset(curl_easy_init());
    if (!impl_->curl) {
        throw OrvaneError(OrvaneErrorCode::Setup, "create: curl_easy_init failed");
    }
}

Orvane::~Orvane() = default;

void Orvane::Orvane_enable_log(int level) {
    impl_->logLevel = level;
    impl_->log(3, "log level " + std::to_string(level));
    if (!impl_->tls) {
        impl_->log(2, "plain transport requested; PDS calls always use TLS");
    }
}

void Orvane::Orvane_pds_open(const std::string& locale, std::map<std::string, std::string> request,
                             bool force, bool companion, std::map<std::string, std::string>& result,
                             bool standalone) {
    impl_->loadSecret();
    impl_->call("open", impl_->body(locale, request, {true, true}, force, companion, standalone),
                result);
}

void Orvane::Orvane_pds_close(const std::string& locale, std::map<std::string, std::string> request,
                              bool companion, std::map<std::string, std::string>& result,
                              bool standalone) {
    impl_->loadSecret();
    impl_->call("close", impl_->body(locale, request, {false, true}, false, companion, standalone),
                result);
}

void Orvane::Orvane_pds_wipe(const std::string& locale, std::map<std::string, std::string> request,
                             std::map<std::string, std::string>& result) {
    impl_->loadSecret();
    impl_->call("wipe", impl_->body(locale, request, {false, false}, false, false, false), result);
}
