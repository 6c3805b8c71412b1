#include "StatusReport.h"

#include <json-glib/json-glib.h>

#include <pelio/CHandles.h>
#include <pelio/platform/Preferences.h>
#include <filesystem>
#include <map>
#include <memory>

#include "ServicePreferences.h"
#include "ShadowDatabase.h"

namespace pp = pelio::platform;

namespace {

// One domain: its name, its shadow tables, its status key and its PLM id preference.
struct DomainSource {
    const char* name;
    std::vector<const char*> tables;
    const char* statusKey;
    const char* plmIdPreference;
};

const std::vector<DomainSource>& domainSources() {
    static const std::vector<DomainSource> sources = {
        {"contacts", {"contacts"}, "CONTACTS_SYNC_STATUS_P", "contact_synced_plm_id"},
        {"applications", {"application"}, "APP_SYNC_STATUS_P", "app_synced_plm_id"},
        {"media", {"audio", "audio_playlist"}, "MEDIA_SYNC_STATUS_P", "media_synced_plm_id"},
    };
    return sources;
}

// The service's defaults when no preference says otherwise (see its DataUploadHandler).
constexpr int kDefaultPort = 443;
constexpr const char* kDefaultLocale = "en-US";
constexpr const char* kHostEastAsia = "kr-interaction.plm.quorvin.com";
constexpr const char* kHostElsewhere = "us-interaction.plm.quorvin.com";

std::string prefString(pp::Preferences& prefs, const char* key) {
    bool existing = false;
    std::string value;
    if (prefs.isExisting(key, existing) == pp::PREFERENCE_ERROR_NONE && existing)
        prefs.getString(key, value);
    return value;
}

bool eastAsian(const std::string& locale) {
    for (const char* l : {"ja-JP", "ko-KR", "zh-CN", "zh-HK", "zh-SG", "zh-TW"}) {
        if (locale == l)
            return true;
    }
    return false;
}

}  // namespace

bool StatusReport::read(bool serviceRunning) {
    serviceRunning_ = serviceRunning;
    domains_.clear();
    std::map<std::string, std::string> master;
    ShadowDatabase db;
    databaseNote_.clear();
    const bool opened = db.open();
    if (!opened)
        databaseNote_ = db.error();
    db.begin();
    if (opened && !db.masterRows("%_SYNC_STATUS_P", "", master))
        databaseNote_ = "no master table yet";

    std::unique_ptr<pp::Preferences> prefs = openServicePreferences();
    for (const DomainSource& source : domainSources()) {
        DomainStatus domain(source.name);
        const auto status = master.find(source.statusKey);
        if (status != master.end())
            domain.setStatusValue(status->second);
        for (const char* table : source.tables) {
            std::map<int, long> counts;
            db.countByDirty(table, counts);
            for (const auto& [dirty, n] : counts)
                domain.addRows(dirty, n);
        }
        if (prefs) {
            const std::string id = prefString(*prefs, source.plmIdPreference);
            domain.setPlmId(id == "Unknown" ? "" : id);
        }
        domains_.push_back(domain);
    }
    const bool consistent = db.end() || !opened;
    if (!consistent)
        databaseNote_ = "busy: the service held it longer than the wait; figures may be partial";
    readServer(prefs.get());
    return consistent;
}

void StatusReport::readServer(pp::Preferences* prefs) {
    host_.clear();
    port_ = 0;
    certificate_.clear();
    locale_.clear();
    if (prefs) {
        host_ = prefString(*prefs, "server_ip");
        prefs->getInt("port", port_);
        certificate_ = prefString(*prefs, "cert_path");
        locale_ = prefString(*prefs, "locale");
    }
    if (locale_.empty())
        locale_ = kDefaultLocale;
    hostIsDefault_ = host_.empty();
    if (hostIsDefault_)
        host_ = eastAsian(locale_) ? kHostEastAsia : kHostElsewhere;
    if (port_ <= 1)
        port_ = kDefaultPort;
    std::error_code ec;
    certificateExists_ =
        !certificate_.empty() && std::filesystem::is_regular_file(certificate_, ec);
}

bool StatusReport::allInStep() const {
    for (const DomainStatus& d : domains_) {
        const DomainStatus::State state = d.state(serviceRunning_);
        if (state != DomainStatus::State::InStep && state != DomainStatus::State::NeverSynced)
            return false;
    }
    return true;
}

std::string StatusReport::text() const {
    std::string out =
        std::string("service:      ") + (serviceRunning_ ? "running" : "not running") + "\n";
    out += "server:       " + host_ + ":" + std::to_string(port_) +
           (hostIsDefault_ ? " (default for locale " + locale_ + ")" : "") + "\n";
    if (certificate_.empty())
        out += "certificate:  none set (the system's CA store)\n";
    else if (!certificateExists_)
        out += "certificate:  " + certificate_ + " (missing: the system's CA store is used)\n";
    else
        out += "certificate:  " + certificate_ + "\n";
    if (!databaseNote_.empty())
        out += "database:     " + databaseNote_ + "\n";
    for (const DomainStatus& d : domains_) {
        const std::string label = d.name() + ":";
        out += label + std::string(label.size() < 14 ? 14 - label.size() : 1, ' ') +
               DomainStatus::stateWords(d.state(serviceRunning_)) + "; " +
               std::to_string(d.rows()) + " rows, " + d.waitingWords() + "; PLM id " +
               (d.plmId().empty() ? "none yet" : d.plmId()) + "\n";
    }
    return out;
}

std::string StatusReport::json() const {
    pelio::GObjectPtr<JsonBuilder> b(json_builder_new());
    JsonBuilder* j = b.get();
    json_builder_begin_object(j);
    json_builder_set_member_name(j, "service_running");
    json_builder_add_boolean_value(j, serviceRunning_);
    json_builder_set_member_name(j, "server");
    json_builder_begin_object(j);
    json_builder_set_member_name(j, "host");
    json_builder_add_string_value(j, host_.c_str());
    json_builder_set_member_name(j, "port");
    json_builder_add_int_value(j, port_);
    json_builder_set_member_name(j, "host_is_default");
    json_builder_add_boolean_value(j, hostIsDefault_);
    json_builder_set_member_name(j, "certificate");
    if (certificate_.empty())
        json_builder_add_null_value(j);
    else
        json_builder_add_string_value(j, certificate_.c_str());
    json_builder_set_member_name(j, "certificate_exists");
    json_builder_add_boolean_value(j, certificateExists_);
    json_builder_end_object(j);
    json_builder_set_member_name(j, "domains");
    json_builder_begin_object(j);
    for (const DomainStatus& d : domains_) {
        json_builder_set_member_name(j, d.name().c_str());
        json_builder_begin_object(j);
        const auto member = [j](const char* name, long value) {
            json_builder_set_member_name(j, name);
            json_builder_add_int_value(j, value);
        };
        json_builder_set_member_name(j, "state");
        json_builder_add_string_value(j, DomainStatus::stateKey(d.state(serviceRunning_)));
        json_builder_set_member_name(j, "status_value");
        json_builder_add_string_value(j, d.statusValue().c_str());
        member("rows", d.rows());
        member("confirmed", d.confirmed());
        member("to_add", d.toAdd());
        member("to_change", d.toChange());
        member("to_delete", d.toDelete());
        json_builder_set_member_name(j, "plm_id");
        if (d.plmId().empty())
            json_builder_add_null_value(j);
        else
            json_builder_add_string_value(j, d.plmId().c_str());
        json_builder_end_object(j);
    }
    json_builder_end_object(j);
    json_builder_end_object(j);

    JsonNode* root = json_builder_get_root(j);
    pelio::GObjectPtr<JsonGenerator> gen(json_generator_new());
    json_generator_set_root(gen.get(), root);
    json_generator_set_pretty(gen.get(), TRUE);
    gchar* data = json_generator_to_data(gen.get(), nullptr);
    std::string out = data ? data : "{}";
    g_free(data);
    json_node_unref(root);
    return out + "\n";
}
