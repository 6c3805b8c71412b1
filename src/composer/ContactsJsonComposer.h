// ContactsJsonComposer: turns the "contacts" shadow table into upload documents (sync item 3).
// It reads the ids, revisions and dirty flags of the rows that are not in step with the server
// (dirty != 4) and, as they come, looks each live one up in the contacts service (names, phonetic
// name, favourite flag, numbers: only their label and the id of the number record leave the
// device) and writes one document per row into bodies of at most 1000 documents.
//
// Threads: one composer object on one thread (the sync manager's worker, under its contacts
// lock); it opens its own contacts-service connection for the call. The label translation and
// the locale switch are serialised by a process-wide mutex. The document counter is process-wide
// and never reset while the process lives.
// Ownership: made and destroyed by JSONComposer::makeSyncData(3); makeUploadJSON()'s record
// belongs to the caller.
// Errors: nothing stops composition; failed queries and look-ups only reduce what is written.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <pelio/platform/Contacts.h>

#include "composer/JSONComposer.h"
#include "composer/JsonTextWriter.h"

// A labelled value of a contact (number, e-mail, address, event).
struct ContactValueEntry {
    std::string label;
    std::string clientValue;
    std::string typeCode;  // the platform type bits as decimal text
    bool isDefault = false;
};

// One selected row and what the contacts service knows about it.
struct ContactComposeRecord {
    int contactId = 0;
    std::string rowId;     // "_id" as stored
    std::string version;   // "version" as stored ("NULL" when none)
    bool readable = true;  // false when the contacts service could not give the person
    std::string displayName;
    std::string firstName;
    std::string lastName;
    std::string middleName;
    std::string nickname;
    std::string phoneticName;
    std::string prefix;
    std::string suffix;
    bool starred = false;
    std::string revision;
    int dirty = 0;
    int timesContacted = 0;
    std::vector<ContactValueEntry> numbers;
    std::vector<ContactValueEntry> addresses;
    std::vector<ContactValueEntry> emails;
    std::vector<ContactValueEntry> events;
};

class ContactsJsonComposer : public JSONComposer {
  public:
    static constexpr int kBatchSize = 1000;
    static constexpr size_t kLookupRows = 64;  // rows whose contacts are looked up together
    // Rows per SELECT: three columns each keep one SELECT within the row-transfer bound.
    static constexpr int kSelectPageRows = 750;  // five columns a row
    static constexpr size_t kIdWidth = 12;
    static constexpr const char* kIdPrefix = "con_";

    ContactsJsonComposer();
    ~ContactsJsonComposer() override;

    // The whole composition; item -1 and counts -1 when there is nothing to send.
    std::unique_ptr<SyncData> makeUploadJSON();

    // Fills record from the live contact whose person id is idText, as looked up (ret the
    // look-up's result); false when the look-up failed (record left as it was).
    bool getFirstNameFromContactId(const std::string& idText, int ret,
                                   const pelio::platform::ContactRecord& contact,
                                   ContactComposeRecord& record);
    bool getAllDataFromRecord(const pelio::platform::ContactRecord& contact,
                              ContactComposeRecord& record);
    bool getNameFromRecord(const pelio::platform::ContactRecord& contact,
                           ContactComposeRecord& record);
    bool getPhoneticNameFromRecord(const pelio::platform::ContactRecord& contact,
                                   ContactComposeRecord& record);
    bool getNumbersFromRecord(const pelio::platform::ContactRecord& contact,
                              ContactComposeRecord& record);
    bool getFavoriteFromRecord(const pelio::platform::ContactRecord& contact,
                               ContactComposeRecord& record);
    bool getEmailsFromRecord(const pelio::platform::ContactRecord& contact,
                             ContactComposeRecord& record);
    bool getAddressFromRecord(const pelio::platform::ContactRecord& contact,
                              ContactComposeRecord& record);

    // The (translated) label of a number type bit set.
    static std::string getTypeString(int type);
    // Phonetic parts joined by one blank, empty parts left out; family part first for locales
    // containing "ja_JP" or "ko_KR".
    static std::string joinPhoneticName(const std::string& first, const std::string& middle,
                                        const std::string& last, const std::string& locale);
    // The last "doc_number" handed out in this process.
    static int lastDocumentNumber();

  private:
    struct Counts {
        int inserted = 0;
        int deleted = 0;
        int updated = 0;
        bool complete = true;  // false when a row could not be composed
    };

    void _setLocaleForJsonFields();
    // The documents are written into the body as text: a JSON-GLib tree of each one would cost
    // several times more to build, serialise and free. `revision`: the "_rev" of an update.
    void _writeLiveDocument(const ContactComposeRecord& record, const std::string& documentId,
                            const std::string* revision);
    void _writeContactObject(const ContactComposeRecord& record);
    // Both false when the sink stopped the upload.
    bool _documentWritten();
    bool _flushBatch();
    // Reads the selected rows and composes them as they come (through _composeRecords).
    bool _readRows(Counts& counts);
    // Looks the rows read so far up and makes their documents, in bodies of kBatchSize, and lets
    // the rows go; false when the sink stopped the upload.
    bool _composeRecords(Counts& counts);

    // What the shadow table says of one selected row, kept until its document is made (at most
    // kLookupRows of them); the contact's own data is looked up then.
    struct SelectedRow {
        int contactId = 0;
        int dirty = 0;
        std::string rowId;     // "_id" as stored
        std::string version;   // "version" as stored ("NULL" when none)
        std::string revision;  // empty when never uploaded
    };

    int mItemCounter = 0;
    JsonTextWriter mBody;  // the body being written: {"docs":[ and its documents so far
    std::unique_ptr<SyncData> mResult;  // the record being filled
    std::vector<SelectedRow> mRows;
    int mSelected = 0;    // rows selected in this composition
    std::string mLocale;  // device locale with "_" ("en_US")
};
