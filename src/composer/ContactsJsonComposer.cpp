#include "composer/ContactsJsonComposer.h"

#include <libintl.h>

#include <algorithm>
#include <atomic>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include <pelio/platform/I18n.h>

#include "PLMConstants.h"
#include "PelioLog.h"
#include "SyncHandlers/BaseSyncHandler.h"
#include "database/DbManager.h"
#include "database/KeysetReader.h"
#include "utils/BundleMacro.h"
#include "utils/PLMUtils.h"

using pelio::platform::Bundle;
namespace pp = pelio::platform;

namespace {

constexpr const char* kTextDomain = "pelio-service";

// Guards the process-wide locale state read by dgettext and changed by the locale switch.
std::mutex& labelMutex() {
    static std::mutex mutex;
    return mutex;
}

std::atomic<int> gContactDocNumber{0};

std::string translate(const char* msgid) {
    static std::once_flag bound;
    std::lock_guard<std::mutex> guard(labelMutex());
    std::call_once(bound, [] { pp::bindServiceTextDomain(); });
    return dgettext(kTextDomain, msgid);
}

}  // namespace

ContactsJsonComposer::ContactsJsonComposer() = default;

ContactsJsonComposer::~ContactsJsonComposer() = default;

int ContactsJsonComposer::lastDocumentNumber() {
    return gContactDocNumber.load();
}

std::string ContactsJsonComposer::getTypeString(int type) {
    const unsigned bits = static_cast<unsigned>(type);
    const bool home = bits & pp::CONTACTS_NUMBER_TYPE_HOME;
    const bool work = bits & pp::CONTACTS_NUMBER_TYPE_WORK;
    if (bits & pp::CONTACTS_NUMBER_TYPE_CUSTOM)
        return translate("contact_other");
    if (bits & pp::CONTACTS_NUMBER_TYPE_CELL)
        return translate("contact_mobile");
    if (bits & pp::CONTACTS_NUMBER_TYPE_VOICE) {
        if (home)
            return translate("contact_home");
        if (work)
            return translate("contact_work");
        return translate("contact_other");
    }
    if (bits & pp::CONTACTS_NUMBER_TYPE_FAX) {
        if (home)
            return translate("IDS_VOICE_BODY_FAX_HHOME");
        if (work)
            return translate("IDS_VOICE_BODY_FAX_HWORK");
        return translate("contact_other");
    }
    if (bits & pp::CONTACTS_NUMBER_TYPE_PAGER)
        return translate("IDS_PB_BODY_PAGER");
    if (bits & pp::CONTACTS_NUMBER_TYPE_MAIN) {
        LOGD("main");
        return "main";
    }
    if (bits == pp::CONTACTS_NUMBER_TYPE_HOME)
        return translate("contact_home");
    if (bits == pp::CONTACTS_NUMBER_TYPE_WORK)
        return translate("contact_work");
    return translate("contact_other");
}

std::string ContactsJsonComposer::joinPhoneticName(const std::string& first,
                                                   const std::string& middle,
                                                   const std::string& last,
                                                   const std::string& locale) {
    std::vector<const std::string*> order;
    if (locale.find("ja_JP") != std::string::npos || locale.find("ko_KR") != std::string::npos) {
        LOGD("Korean-Japnese case");
        order = {&last, &first, &middle};
    } else {
        order = {&first, &middle, &last};
    }
    std::string joined;
    for (const std::string* part : order) {
        if (part->empty())
            continue;
        if (!joined.empty())
            joined += ' ';
        joined += *part;
    }
    return joined;
}

void ContactsJsonComposer::_setLocaleForJsonFields() {
    std::string locale = getLocalePreference();
    if (locale.empty())
        locale = plm::DEFAULT_LOCALE;
    std::replace(locale.begin(), locale.end(), '-', '_');
    mLocale = locale;
    LOGD("locale[%s]", locale.c_str());

    std::lock_guard<std::mutex> guard(labelMutex());
    bool changed = false;
    const char* language = std::getenv("LANGUAGE");
    if (language == nullptr) {
        setenv("LANGUAGE", locale.c_str(), 1);
        setenv("LC_MESSAGES", locale.c_str(), 1);
        changed = true;
    } else {
        if (locale != language) {
            setenv("LANGUAGE", locale.c_str(), 1);
            changed = true;
        }
        const char* messages = std::getenv("LC_MESSAGES");
        if (messages == nullptr || locale != messages) {
            setenv("LC_MESSAGES", locale.c_str(), 1);
            changed = true;
        }
    }
    if (changed) {
        std::setlocale(LC_ALL, locale.c_str());
        // A locale that is not installed leaves a plain "C" LC_MESSAGES, under which gettext
        // ignores LANGUAGE; binding again moves it to C.UTF-8 so the catalogues still apply.
        pp::bindServiceTextDomain();
        pp::refreshServiceTranslations();
    }
}

bool ContactsJsonComposer::getNameFromRecord(const pp::ContactRecord& contact,
                                             ContactComposeRecord& record) {
    record.displayName = contact.displayName;
    if (!contact.hasName)
        return false;
    record.firstName = contact.name.first;
    record.lastName = contact.name.last;
    record.middleName = contact.name.addition;
    return true;
}

bool ContactsJsonComposer::getPhoneticNameFromRecord(const pp::ContactRecord& contact,
                                                     ContactComposeRecord& record) {
    if (!contact.hasName)
        return false;
    record.phoneticName = joinPhoneticName(contact.name.phoneticFirst, contact.name.phoneticMiddle,
                                           contact.name.phoneticLast, mLocale);
    return true;
}

bool ContactsJsonComposer::getNumbersFromRecord(const pp::ContactRecord& contact,
                                                ContactComposeRecord& record) {
    if (!contact.hasPhoneNumber)
        return true;
    for (const auto& number : contact.numbers) {
        ContactValueEntry entry;
        entry.label = getTypeString(number.type);
        entry.clientValue = std::to_string(number.id);
        entry.typeCode = std::to_string(number.type);
        entry.isDefault = number.isDefault;
        record.numbers.push_back(std::move(entry));
    }
    return true;
}

bool ContactsJsonComposer::getFavoriteFromRecord(const pp::ContactRecord& contact,
                                                 ContactComposeRecord& record) {
    record.starred = contact.isFavorite;
    return true;
}

bool ContactsJsonComposer::getEmailsFromRecord(const pp::ContactRecord& contact,
                                               ContactComposeRecord& record) {
    for (const auto& email : contact.emails) {
        record.emails.push_back({getTypeString(email.type), std::to_string(email.id),
                                 std::to_string(email.type), email.isDefault});
    }
    return true;
}

bool ContactsJsonComposer::getAddressFromRecord(const pp::ContactRecord& contact,
                                                ContactComposeRecord& record) {
    for (const auto& address : contact.addresses) {
        record.addresses.push_back({getTypeString(address.type), std::to_string(address.id),
                                    std::to_string(address.type), address.isDefault});
    }
    return true;
}

bool ContactsJsonComposer::getAllDataFromRecord(const pp::ContactRecord& contact,
                                                ContactComposeRecord& record) {
    if (!getNameFromRecord(contact, record))
        LOGE("getNameFromRecord false");
    if (!getPhoneticNameFromRecord(contact, record))
        LOGE("getPhoneticNameFromRecord false");
    if (!getNumbersFromRecord(contact, record))
        LOGE("getNumbersFromRecord false");
    if (!getFavoriteFromRecord(contact, record))
        LOGE("getFavoriteFromRecord false");
    return true;
}

bool ContactsJsonComposer::getFirstNameFromContactId(const std::string& idText, int ret,
                                                     const pp::ContactRecord& contact,
                                                     ContactComposeRecord& record) {
    if (ret != pp::CONTACTS_ERROR_NONE) {
        LOGE("contacts_db_get_records_with_query failed[%d] for person[%s]", ret, idText.c_str());
        return false;
    }
    return getAllDataFromRecord(contact, record);
}

bool ContactsJsonComposer::_readRows(Counts& counts) {
    char projection[64];
    std::snprintf(projection, sizeof(projection), " %s, %s, %s, %s", "_id", "rev_id", "dirty",
                  "version");
    LOGD("columns are[%s]", projection);

    // Paged, so that one SELECT stays within the row-transfer bound whatever the table's size.
    // The rows are composed as they come, a look-up's worth at a time, so the first body goes up
    // before the last rows are read.
    int rowCount = 0;
    bool go = true;
    const bool ok = KeysetReader::readAll(
        "contacts", projection, plm::NOT_SYNCED, kSelectPageRows,
        [this, &rowCount, &counts, &go](const Bundle& row) {
            ++rowCount;
            if (!go)
                return;  // the upload stopped: the rest stays dirty
            const std::string id = getValStr(&row, columnKey(1));
            std::string revision = getValStr(&row, columnKey(2));
            const std::string dirty = getValStr(&row, columnKey(3));
            if (id.empty() || dirty.empty() || !row.contains(columnKey(2)))
                return;
            if (revision == "NULL")
                revision.clear();  // never uploaded: no revision yet
            SelectedRow selected;
            selected.dirty = static_cast<int>(std::strtol(dirty.c_str(), nullptr, 10));
            selected.revision = std::move(revision);
            selected.contactId = static_cast<int>(std::strtol(id.c_str(), nullptr, 10));
            selected.rowId = id;
            selected.version = getValStr(&row, columnKey(4));
            mRows.push_back(std::move(selected));
            ++mSelected;
            if (mRows.size() == kLookupRows && go)
                go = _composeRecords(counts);
        });
    if (go)
        _composeRecords(counts);
    if (!ok)
        LOGE("dbMgr->plmsvc_db_process failed");
    if (rowCount == 0)
        LOGD("no information present");
    LOGD("count is[%d])", rowCount + 1);
    return ok;
}

// Strings go in as JSON-GLib's string members take them: up to their first zero byte.
void ContactsJsonComposer::_writeContactObject(const ContactComposeRecord& record) {
    JsonTextWriter& w = mBody;
    w.beginObject(plm::DOC_META_DATA);
    w.add("firstname", record.firstName.c_str());
    w.add("lastname", record.lastName.c_str());
    w.add("starred", record.starred);
    w.add("middlename", record.middleName.c_str());
    w.add("nickname", record.nickname.c_str());
    w.add("displayname", record.displayName.c_str());
    w.add("phoneticname", record.phoneticName.c_str());
    w.add("prefix", record.prefix.c_str());
    w.add("suffix", record.suffix.c_str());
    w.beginObject("contact_count_info");
    w.add("times_contacted", static_cast<long long>(record.timesContacted));
    w.endObject();

    auto addEntries = [&w](const char* key, const char* typeKey,
                           const std::vector<ContactValueEntry>& entries) {
        if (entries.empty())
            return;
        w.beginArray(key);
        for (const auto& entry : entries) {
            w.beginObject();
            w.add(typeKey, entry.label.c_str());
            w.add("clientData", entry.clientValue.c_str());
            w.add("default", entry.isDefault);
            w.endObject();
        }
        w.endArray();
    };
    addEntries("phone", "phonetype", record.numbers);
    addEntries("addresstype", "addresstype", record.addresses);
    addEntries("email", "emailtype", record.emails);
    addEntries("event", "eventtype", record.events);
    w.endObject();
}

void ContactsJsonComposer::_writeLiveDocument(const ContactComposeRecord& record,
                                              const std::string& documentId,
                                              const std::string* revision) {
    _beginDocumentText(mBody, documentId, "contact", ++gContactDocNumber);
    _writeContactObject(record);
    if (revision != nullptr)
        mBody.add(plm::DOC_REV, revision->c_str());
    mBody.endObject();
}

bool ContactsJsonComposer::_flushBatch() {
    std::string text = _closeBodyText(mBody);
    _openBodyText(mBody);
    mItemCounter = 0;
    const bool go = _emitBodyText(std::move(text), *mResult);
    LOGD("after setting mJsonArr");
    return go;
}

bool ContactsJsonComposer::_documentWritten() {
    if (mItemCounter == kBatchSize) {
        LOGD("here in 1000");
        return _flushBatch();
    }
    return true;
}

std::unique_ptr<SyncData> ContactsJsonComposer::makeUploadJSON() {
    mItemCounter = 0;
    mBody.take();
    _openBodyText(mBody);
    mResult = std::make_unique<SyncData>();
    mRows.clear();
    mSelected = 0;

    auto& contacts = pp::contactsService();
    const int connected = contacts.connectOnThread();
    if (connected != pp::CONTACTS_ERROR_NONE)
        LOGE("ret[%d]", connected);
    // Disconnects on every way out (an over-long id throws out of the document loop).
    struct Disconnect {
        pp::ContactsService& service;
        ~Disconnect() {
            const int ret = service.disconnectOnThread();
            if (ret != pp::CONTACTS_ERROR_NONE)
                LOGE("ret[%d]", ret);
        }
    } disconnect{contacts};

    _setLocaleForJsonFields();

    Counts counts;
    _readRows(counts);
    LOGD("list size is : [%d]", mSelected);

    if (counts.inserted > 0 || counts.deleted > 0 || counts.updated != 0) {
        LOGD("Has some info to sync at server");
        mResult->itemType = plm::SYNC_ITEM_CONTACTS;
        mResult->insertedCount = counts.inserted;
        mResult->deletedCount = counts.deleted;
        mResult->updatedCount = counts.updated;
        if (mItemCounter != 0 && mResult->complete)
            _flushBatch();
    }
    std::unique_ptr<SyncData> result = std::move(mResult);
    if (result->insertedCount == -1)
        result->sentRows = std::make_shared<SentRows>();  // nothing was sent
    if (!counts.complete)
        result->complete = false;

    LOGD("mItemCounter is : [%d]", mItemCounter);
    mRows.clear();
    mRows.shrink_to_fit();
    return result;
}

bool ContactsJsonComposer::_composeRecords(Counts& counts) {
    if (mRows.empty())
        return true;
    SentRows& sent = *mResult->sentRows;
    // The rows read so far (at most kLookupRows) are looked up in one go, and released after:
    // memory does not grow with the size of the address book.
    std::vector<int> personIds;
    for (const SelectedRow& row : mRows) {
        if (row.dirty != plm::DIRTY_DELETED)
            personIds.push_back(row.contactId);
    }
    std::vector<pp::ContactRecord> contacts;
    std::vector<int> results;
    pp::contactsService().getContactsByPersonIds(personIds, contacts, results);
    size_t looked = 0;  // index into contacts / results of the next live row
    for (const SelectedRow& selected : mRows) {
        ContactComposeRecord record;
        record.contactId = selected.contactId;
        record.dirty = selected.dirty;
        record.rowId = selected.rowId;
        record.version = selected.version;
        record.revision = selected.revision;
        const std::string idText = std::to_string(record.contactId);
        if (record.dirty != plm::DIRTY_DELETED) {
            record.readable =
                looked < results.size() &&
                getFirstNameFromContactId(idText, results[looked], contacts[looked], record);
            ++looked;
        }
        if (!record.readable) {
            // Never an empty document: the row stays dirty and the next collection sees what
            // became of the person.
            LOGE("person[%s] not readable, not sent", idText.c_str());
            counts.complete = false;
            continue;
        }
        const std::string documentId =
            BaseSyncHandler::formatFixedWidthId(kIdPrefix, idText, kIdWidth);
        SentRow& sentRow = sent[documentId];
        sentRow.table = "contacts";
        sentRow.key = {{"_id", record.rowId}};
        sentRow.state = {{"dirty", std::to_string(record.dirty)}};
        if (record.version != "NULL" && !record.version.empty())
            sentRow.state.emplace_back("version", record.version);
        ++mItemCounter;
        if (record.dirty == plm::DIRTY_DELETED) {
            _writeDeletedText(mBody, documentId, record.revision);
            ++counts.deleted;
        } else if (record.dirty == plm::DIRTY_UPDATED && !record.revision.empty()) {
            _writeLiveDocument(record, documentId, &record.revision);
            ++counts.updated;
        } else {
            _writeLiveDocument(record, documentId, nullptr);
            ++counts.inserted;
        }
        if (!_documentWritten()) {
            mRows.clear();
            return false;
        }
    }
    mRows.clear();
    return true;
}
