// The Linux contacts service on vCard files in a throw-away home.
#include <gtest/gtest.h>

#include <pelio/platform/Contacts.h>

#include <pelio/platform/MainLoop.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "support/LogCapture.h"
#include "support/MainLoopWait.h"
#include "support/TempHome.h"
#include "support/VCardBook.h"

using namespace pelio::platform;
using pelio::test::VCardBook;
namespace fs = std::filesystem;

namespace {

std::string card(const std::string& uid, const std::string& fn, const std::string& extra = {}) {
    return VCardBook::card(uid, fn, extra);
}

class ContactsServiceTest : public ::testing::Test {
  public:
    void SetUp() override {
        installContactsService(nullptr);  // a fresh Linux service that reads this HOME
        root_ = home_.dataHome() + "/contacts";
    }
    void TearDown() override { installContactsService(nullptr); }

    void write(const std::string& rel, const std::string& text) {
        const fs::path p = fs::path(root_) / rel;
        fs::create_directories(p.parent_path());
        std::ofstream(p, std::ios::binary | std::ios::trunc) << text;
    }

    // connect() rescans every time it is called; the extra count is dropped again.
    void rescan() {
        ASSERT_EQ(contactsService().connect(), CONTACTS_ERROR_NONE);
        ASSERT_EQ(contactsService().disconnect(), CONTACTS_ERROR_NONE);
    }

    int version() {
        int v = -1;
        EXPECT_EQ(contactsService().getCurrentVersion(v), CONTACTS_ERROR_NONE);
        return v;
    }

    std::map<std::string, ContactSummary> byName() {
        std::vector<ContactSummary> all;
        EXPECT_EQ(contactsService().getAllContacts(all), CONTACTS_ERROR_NONE);
        std::map<std::string, ContactSummary> out;
        for (const auto& c : all)
            out[c.displayName] = c;
        return out;
    }

    ContactRecord record(int personId) {
        ContactRecord r;
        EXPECT_EQ(contactsService().getContactByPersonId(personId, r), CONTACTS_ERROR_NONE);
        return r;
    }

    std::map<int, ContactChange> changesAfter(int v) {
        std::vector<ContactChange> changes;
        int current = -1;
        EXPECT_EQ(contactsService().getChangesByVersion(-1, v, changes, current),
                  CONTACTS_ERROR_NONE);
        EXPECT_EQ(current, version());
        std::map<int, ContactChange> out;
        for (const auto& c : changes) {
            EXPECT_TRUE(out.emplace(c.contactId, c).second) << "two records for one contact";
        }
        return out;
    }

    pelio::test::LogCapture log_;
    pelio::test::TempHome home_;
    std::string root_;
};

TEST_F(ContactsServiceTest, ChangeLogByVersionAndStableIds) {
    write("personal/a.vcf", card("uid-ann", "Ann") + card("", "Bob"));
    write("work/c.vcf", card("uid-cat", "Cat"));
    ASSERT_EQ(contactsService().connect(), CONTACTS_ERROR_NONE);
    EXPECT_TRUE(fs::exists(home_.dataHome() + "/pelio-platform/contacts.db"));

    const int v1 = version();
    EXPECT_EQ(v1, 1);
    auto names = byName();
    ASSERT_EQ(names.size(), 3u);
    const int ann = names["Ann"].id, bob = names["Bob"].id, cat = names["Cat"].id;
    EXPECT_TRUE(ann > 0 && bob > 0 && ann != bob && names["Ann"].personId == ann);
    auto changes = changesAfter(0);
    ASSERT_EQ(changes.size(), 3u);
    for (int id : {ann, bob, cat})
        EXPECT_TRUE(changes[id].type == CONTACTS_CHANGE_INSERTED && changes[id].version == v1);
    EXPECT_NE(changes[ann].addressBookId, changes[cat].addressBookId);
    EXPECT_EQ(changes[ann].addressBookId, changes[bob].addressBookId);
    // Filtered by address book.
    std::vector<ContactChange> work;
    int current = 0;
    ASSERT_EQ(contactsService().getChangesByVersion(changes[cat].addressBookId, 0, work, current),
              CONTACTS_ERROR_NONE);
    ASSERT_EQ(work.size(), 1u);
    EXPECT_EQ(work[0].contactId, cat);

    // Nothing changed: no new version, nothing after v1.
    rescan();
    EXPECT_EQ(version(), v1);
    EXPECT_TRUE(changesAfter(v1).empty());

    // One rescan with an update, a delete and an insert: one new version shared by all three.
    write("personal/a.vcf", card("uid-ann", "Ann Updated") + card("", "Bob"));
    fs::remove(fs::path(root_) / "work/c.vcf");
    write("work/d.vcf", card("uid-dan", "Dan"));
    rescan();
    const int v2 = version();
    EXPECT_EQ(v2, v1 + 1);
    names = byName();
    const int dan = names["Dan"].id;
    EXPECT_EQ(names["Ann Updated"].id, ann);
    EXPECT_GT(dan, cat) << "ids are never reused";
    changes = changesAfter(v1);
    ASSERT_EQ(changes.size(), 3u);
    EXPECT_EQ(std::vector<int>({changes[ann].type, changes[cat].type, changes[dan].type}),
              std::vector<int>(
                  {CONTACTS_CHANGE_UPDATED, CONTACTS_CHANGE_DELETED, CONTACTS_CHANGE_INSERTED}));
    for (const auto& [id, c] : changes)
        EXPECT_EQ(c.version, v2);
    // From 0, each contact appears once with its latest change.
    changes = changesAfter(0);
    EXPECT_EQ(changes.size(), 4u);
    EXPECT_TRUE(changes[bob].version == v1 && changes[ann].type == CONTACTS_CHANGE_UPDATED);

    // The deleted card stays listed with its last name; a lookup finds nothing.
    ASSERT_TRUE(names.count("Cat"));
    EXPECT_TRUE(names["Cat"].deleted && !names["Ann Updated"].deleted);
    ContactRecord gone;
    EXPECT_EQ(contactsService().getContactByPersonId(cat, gone), CONTACTS_ERROR_NO_DATA);
    EXPECT_EQ(record(ann).displayName, "Ann Updated");
    // Looked up by id, the list gives the same entries, the deleted one included.
    ContactSummary one;
    EXPECT_EQ(contactsService().getContactSummary(cat, one), CONTACTS_ERROR_NONE);
    EXPECT_TRUE(one.deleted && one.displayName == "Cat" && one.personId == cat);
    EXPECT_EQ(contactsService().getContactSummary(ann, one), CONTACTS_ERROR_NONE);
    EXPECT_TRUE(!one.deleted && one.displayName == "Ann Updated");
    EXPECT_EQ(contactsService().getContactSummary(cat + ann + bob, one), CONTACTS_ERROR_NO_DATA);
    int count = -1;
    EXPECT_EQ(contactsService().getContactsCount(count), CONTACTS_ERROR_NONE);
    EXPECT_EQ(count, static_cast<int>(names.size()));

    // The card comes back under its UID: same id, inserted again.
    write("work/c.vcf", card("uid-cat", "Cat"));
    rescan();
    EXPECT_EQ(version(), v2 + 1);
    changes = changesAfter(v2);
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[cat].type, CONTACTS_CHANGE_INSERTED);
    EXPECT_FALSE(byName()["Cat"].deleted);
    ASSERT_EQ(contactsService().disconnect(), CONTACTS_ERROR_NONE);

    // A new service instance (as after a restart) sees the same ids and version.
    installContactsService(nullptr);
    ASSERT_EQ(contactsService().connect(), CONTACTS_ERROR_NONE);
    EXPECT_EQ(version(), v2 + 1);
    names = byName();
    EXPECT_EQ(std::vector<int>({names["Ann Updated"].id, names["Bob"].id, names["Dan"].id}),
              std::vector<int>({ann, bob, dan}));
    EXPECT_EQ(contactsService().disconnect(), CONTACTS_ERROR_NONE);
}

// Files older than a few seconds are trusted by their size and times: a rescan reads only what
// changed, and still sees updates, new files, vanished files and duplicate UIDs.
TEST_F(ContactsServiceTest, RescanReadsOnlyChangedFiles) {
    const auto age = [this](const std::string& rel) {
        const fs::path p = fs::path(root_) / rel;
        fs::last_write_time(p, fs::last_write_time(p) - std::chrono::hours(1));
    };
    write("a.vcf", card("uid-ann", "Ann") + card("", "Bob"));
    write("big/c.vcf", card("uid-cat", "Cat") + card("uid-cid", "Cid"));
    age("a.vcf");
    age("big/c.vcf");
    ASSERT_EQ(contactsService().connect(), CONTACTS_ERROR_NONE);
    EXPECT_TRUE(log_.contains("rescan (all files) read 4 cards of 2 files, 4 changed"));
    const int v1 = version();
    auto names = byName();

    write("a.vcf", card("uid-ann", "Ann Updated"));  // Bob vanishes from a re-read file
    write("big/d.vcf", card("uid-dan", "Dan"));
    age("a.vcf");
    age("big/d.vcf");
    rescan();
    EXPECT_TRUE(log_.contains("rescan (changed files) read 2 cards of 2 files, 3 changed"));
    auto changes = changesAfter(v1);
    ASSERT_EQ(changes.size(), 3u);
    EXPECT_EQ(changes[names["Ann"].id].type, CONTACTS_CHANGE_UPDATED);
    EXPECT_EQ(changes[names["Bob"].id].type, CONTACTS_CHANGE_DELETED);
    names = byName();
    EXPECT_TRUE(names.count("Dan") && !names["Cat"].deleted && !names["Cid"].deleted);

    // A removed file's cards vanish although nothing else is read; a file with new times but the
    // same bytes is not parsed again.
    const int v2 = version();
    fs::remove(fs::path(root_) / "big/c.vcf");
    age("a.vcf");
    rescan();
    EXPECT_TRUE(log_.contains("rescan (changed files) read 0 cards of 0 files, 2 changed"));
    EXPECT_EQ(changesAfter(v2).size(), 2u);
    EXPECT_TRUE(byName()["Cat"].deleted);

    // A UID seen twice makes keys depend on every file: everything is read again.
    write("big/e.vcf", card("uid-ann", "Ann Again"));
    rescan();
    EXPECT_TRUE(log_.contains("rescan (all files)") && log_.contains("UID uid-ann appears twice"));
    names = byName();
    EXPECT_TRUE(names.count("Ann Again") && !names["Ann Updated"].deleted);
    EXPECT_EQ(contactsService().disconnect(), CONTACTS_ERROR_NONE);
}

TEST_F(ContactsServiceTest, NamesFavouritesNumbersAndTypes) {
    const std::string others =
        card("uid-2", "", "N:Lee;Sora;;;\r\nCATEGORIES:Friends,Favorites\r\n") +
        card("uid-3", "Plain");
    // Each number line and the type it is read as; the first preferred one is the default.
    const std::vector<std::pair<std::string, int>> numbers = {
        {"TYPE=CELL:010-1111", CONTACTS_NUMBER_TYPE_CELL},
        {"TYPE=HOME,VOICE;TYPE=pref:02-2222",
         CONTACTS_NUMBER_TYPE_HOME | CONTACTS_NUMBER_TYPE_VOICE},
        {"TYPE=WORK,FAX:02-3333", CONTACTS_NUMBER_TYPE_WORK | CONTACTS_NUMBER_TYPE_FAX},
        {"TYPE=x-satellite:0800-4444", CONTACTS_NUMBER_TYPE_CUSTOM},
        {"PREF=1;TYPE=PAGER:0800-5555", CONTACTS_NUMBER_TYPE_PAGER},
        {"TYPE=MAIN:0800-6666", CONTACTS_NUMBER_TYPE_MAIN},
        {":0800-7777", CONTACTS_NUMBER_TYPE_OTHER}};
    std::string kimLines =
        "N:Kim;Minsu;Jae;Dr.;\r\nX-PHONETIC-FIRST-NAME:Minsu\r\n"
        "X-PHONETIC-MIDDLE-NAME:Jae\r\nX-PHONETIC-LAST-NAME:Gim\r\n"
        "X-FAVORITE:TRUE\r\n";
    for (const auto& [line, type] : numbers)
        kimLines += (line[0] == ':' ? "TEL" : "TEL;") + line + "\r\n";
    write("book/people.vcf", card("uid-1", "Dr. Kim Minsu", kimLines) + others);
    ASSERT_EQ(contactsService().connect(), CONTACTS_ERROR_NONE);
    auto names = byName();
    ASSERT_EQ(names.size(), 3u);
    ASSERT_TRUE(names.count("Sora Lee")) << "display name composed from N";

    ContactRecord kim = record(names["Dr. Kim Minsu"].id);
    EXPECT_EQ(kim.personId, names["Dr. Kim Minsu"].id);
    EXPECT_TRUE(kim.hasName && kim.isFavorite && kim.hasPhoneNumber);
    const ContactName& n = kim.name;
    EXPECT_EQ(n.prefix + "|" + n.first + "|" + n.addition + "|" + n.last + "|" + n.phoneticFirst +
                  "|" + n.phoneticMiddle + "|" + n.phoneticLast,
              "Dr.|Minsu|Jae|Kim|Minsu|Jae|Gim");
    ASSERT_EQ(kim.numbers.size(), numbers.size());
    for (size_t i = 0; i < numbers.size(); ++i)
        EXPECT_TRUE(kim.numbers[i].type == numbers[i].second &&
                    kim.numbers[i].isDefault == (i == 1))
            << i;
    EXPECT_EQ(kim.numbers[3].label + "|" + kim.numbers[1].number, "x-satellite|02-2222");

    const ContactRecord sora = record(names["Sora Lee"].id), plain = record(names["Plain"].id);
    EXPECT_TRUE(sora.isFavorite && !sora.hasPhoneNumber);
    EXPECT_FALSE(plain.isFavorite || plain.hasName);

    // Number ids survive a rescan and an edit elsewhere on the card; a changed value gets a new
    // id, a removed one is gone.
    std::map<std::string, int> before;
    for (const auto& n : kim.numbers)
        before[n.number] = n.id;
    const int v = version();
    write("book/people.vcf",
          card("uid-1", "Dr. Kim Minsu",
               "N:Kim;Minsu;Jae;Dr.;\r\nTEL;TYPE=CELL:010-1111\r\nTEL;TYPE=WORK:02-9999\r\n"
               "TEL;TYPE=HOME,VOICE:02-2222\r\n") +
              others);
    rescan();
    EXPECT_EQ(version(), v + 1);
    kim = record(names["Dr. Kim Minsu"].id);
    ASSERT_EQ(kim.numbers.size(), 3u);
    EXPECT_TRUE(kim.numbers[0].id == before["010-1111"] && kim.numbers[2].id == before["02-2222"]);
    EXPECT_FALSE(kim.numbers[2].isDefault || kim.isFavorite);
    for (const auto& [number, id] : before)
        EXPECT_NE(kim.numbers[1].id, id);
    auto changes = changesAfter(v);
    ASSERT_EQ(changes.size(), 1u) << "only the edited card changed";
}

TEST_F(ContactsServiceTest, BadInputIsSkippedAndLogged) {
    write("book/good.vcf", card("uid-ok", "Good") + "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Cut off\r\n");
    write("book/garbage.vcf", "this is not a vCard at all\n\x01\x02\xff\n");
    write("book/noname.vcf", card("uid-nn", "", "TEL:123\r\n"));
    write("book/empty.vcf", "");
    write("book/notes.txt", card("uid-txt", "Not a vcf file"));
    fs::create_directories(fs::path(root_) / "book/folder.vcf");
    ASSERT_EQ(contactsService().connect(), CONTACTS_ERROR_NONE);
    auto names = byName();
    ASSERT_EQ(names.size(), 2u);
    EXPECT_TRUE(names.count("Good"));
    EXPECT_TRUE(names.count("")) << "a card without FN/N is indexed with an empty display name";
    EXPECT_TRUE(log_.contains("invalid vCard #1") && log_.contains("garbage.vcf"));

    // A file that cannot be opened keeps its cards as they were (no deletion). A link to itself
    // cannot be opened by root either.
    const fs::path good = fs::path(root_) / "book/good.vcf";
    fs::rename(good, fs::path(root_) / "good.vcf.aside");
    fs::create_symlink("good.vcf", good);
    rescan();
    EXPECT_TRUE(log_.contains("cannot read"));
    names = byName();
    EXPECT_EQ(names.size(), 2u);
    for (const auto& [name, c] : names)
        EXPECT_FALSE(c.deleted) << name;
}

struct CallbackLog {
    std::vector<std::string> uris;
    std::thread::id thread;
};

void recordChange(const char* uri, void* data) {
    auto* log = static_cast<CallbackLog*>(data);
    log->uris.emplace_back(uri);
    log->thread = std::this_thread::get_id();
    pelio::platform::quitMainLoop();
}

TEST_F(ContactsServiceTest, FolderChangeRunsCallbacksOnMainLoop) {
    pelio::platform::MainLoopScope loop;
    write("book/a.vcf", card("uid-a", "A"));
    ContactsService& svc = contactsService();
    ASSERT_EQ(svc.connect(), CONTACTS_ERROR_NONE);
    CallbackLog person, contact, phoneLog;
    for (auto [uri, log] : {std::pair{kContactsPersonViewUri, &person},
                            {kContactsContactViewUri, &contact},
                            {kContactsPhoneLogViewUri, &phoneLog}})
        ASSERT_EQ(svc.addChangedCallback(uri, recordChange, log), CONTACTS_ERROR_NONE);
    EXPECT_EQ(svc.addChangedCallback("pelio://nothing", recordChange, &phoneLog),
              CONTACTS_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(svc.addChangedCallback(kContactsPersonViewUri, nullptr, &phoneLog),
              CONTACTS_ERROR_INVALID_PARAMETER);
    const int v = version();

    // A new address book folder with a card, written after the watch started; a second callback
    // of the same rescan would show within the extra 0.3 s.
    write("new-book/b.vcf", card("uid-b", "B"));
    pelio::test::runMainLoopUntil([&] { return !person.uris.empty() && !contact.uris.empty(); },
                                  10.0);
    pelio::test::runMainLoopUntil([] { return false; }, 0.3);

    ASSERT_EQ(person.uris, std::vector<std::string>{kContactsPersonViewUri});
    ASSERT_EQ(contact.uris, std::vector<std::string>{kContactsContactViewUri});
    EXPECT_TRUE(person.thread == std::this_thread::get_id() && phoneLog.uris.empty());
    EXPECT_EQ(version(), v + 1);
    EXPECT_TRUE(byName().count("B"));

    EXPECT_EQ(svc.removeChangedCallback(kContactsPersonViewUri, recordChange, &person),
              CONTACTS_ERROR_NONE);
    EXPECT_EQ(svc.removeChangedCallback(kContactsPersonViewUri, recordChange, &person),
              CONTACTS_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(svc.disconnect(), CONTACTS_ERROR_NONE);
    installContactsService(nullptr);  // the watcher goes before the main loop does
}

TEST_F(ContactsServiceTest, ThreadedConnectionsPerThread) {
    write("book/a.vcf", card("uid-a", "A") + card("uid-b", "B"));
    ContactsService& svc = contactsService();
    int unset = 0;
    EXPECT_TRUE(svc.getCurrentVersion(unset) == CONTACTS_ERROR_NOT_CONNECTED &&
                svc.disconnect() == CONTACTS_ERROR_NOT_CONNECTED &&
                svc.disconnectOnThread() == CONTACTS_ERROR_NOT_CONNECTED);
    // No main connection: a worker's own connection rescans and reads.
    std::atomic<int> failures{0};
    auto worker = [&svc, &failures](int rounds, bool mainConnected) {
        failures += svc.connectOnThread() != CONTACTS_ERROR_NONE;
        for (int i = 0; i < rounds; ++i) {
            int v = 0;
            std::vector<ContactSummary> all;
            std::vector<ContactChange> changes;
            ContactRecord r;
            failures += svc.getCurrentVersion(v) != CONTACTS_ERROR_NONE || v < 1;
            failures += svc.getAllContacts(all) != CONTACTS_ERROR_NONE || all.size() < 2;
            failures += svc.getChangesByVersion(-1, 0, changes, v) != CONTACTS_ERROR_NONE;
            failures +=
                !all.empty() && svc.getContactByPersonId(all[0].id, r) != CONTACTS_ERROR_NONE;
        }
        failures += svc.disconnectOnThread() != CONTACTS_ERROR_NONE;
        // After disconnecting, this thread has no connection of its own (nor a main one to fall
        // back on, in the first phase).
        int v = 0;
        failures += !mainConnected && svc.getCurrentVersion(v) != CONTACTS_ERROR_NOT_CONNECTED;
    };
    std::thread t1(worker, 50, false), t2(worker, 50, false);
    t1.join();
    t2.join();
    EXPECT_EQ(failures.load(), 0);

    // With the main connection, rescans on it race with readers on worker threads.
    ASSERT_EQ(svc.connect(), CONTACTS_ERROR_NONE);
    std::thread reader(worker, 100, true);
    for (int i = 0; i < 5; ++i) {
        write("book/c.vcf", card("uid-c", "C " + std::to_string(i)));
        rescan();
    }
    reader.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(version(), 6);
    // A thread without its own connection uses the main one.
    int fromOther = 0;
    std::thread([&svc, &fromOther] { svc.getCurrentVersion(fromOther); }).join();
    EXPECT_EQ(fromOther, 6);
    EXPECT_EQ(svc.disconnect(), CONTACTS_ERROR_NONE);
}

}  // namespace
