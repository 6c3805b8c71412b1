// The in-memory contacts double keeps the Linux service's change-log semantics.
#include <gtest/gtest.h>

#include "doubles/FakeContactsService.h"

using namespace pelio::platform;
using pelio::test::FakeContactsService;

namespace {

int callbackRuns = 0;
void onChange(const char*, void*) {
    ++callbackRuns;
}

TEST(FakeContactsServiceTest, VersionsChangeLogAndConnections) {
    FakeContactsService fake;
    int v = 0;
    EXPECT_EQ(fake.getCurrentVersion(v), CONTACTS_ERROR_NOT_CONNECTED);
    ASSERT_EQ(fake.connectOnThread(), CONTACTS_ERROR_NONE);

    const int a = fake.addContact(FakeContactsService::person("Ann", "Ann", "Lee")
                                      .withNumber("1", CONTACTS_NUMBER_TYPE_CELL, true));
    fake.beginBatch();
    const int b = fake.addContact(FakeContactsService::person("Bob"));
    EXPECT_TRUE(fake.updateContact(b, FakeContactsService::person("Bobby")));
    EXPECT_TRUE(fake.updateContact(
        a, fake.contact(a).favorite().withNumber("2", CONTACTS_NUMBER_TYPE_HOME)));
    fake.commitBatch();
    EXPECT_EQ(fake.version(), 2);

    std::vector<ContactChange> changes;
    ASSERT_EQ(fake.getChangesByVersion(-1, 1, changes, v), CONTACTS_ERROR_NONE);
    EXPECT_EQ(v, 2);
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(changes[0].contactId, a);
    EXPECT_EQ(changes[0].type, CONTACTS_CHANGE_UPDATED);
    EXPECT_EQ(changes[1].type, CONTACTS_CHANGE_INSERTED) << "insert + update in one batch";
    EXPECT_EQ(changes[1].version, 2);

    const auto ids = fake.numberIds(a);
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_TRUE(fake.deleteContact(b));
    EXPECT_FALSE(fake.deleteContact(b));
    std::vector<ContactSummary> all;
    ASSERT_EQ(fake.getAllContacts(all), CONTACTS_ERROR_NONE);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_TRUE(all[1].deleted);
    EXPECT_EQ(all[1].displayName, "Bobby");
    ContactRecord r;
    EXPECT_EQ(fake.getContactByPersonId(b, r), CONTACTS_ERROR_NO_DATA);
    ASSERT_EQ(fake.getContactByPersonId(a, r), CONTACTS_ERROR_NONE);
    EXPECT_TRUE(r.isFavorite);
    EXPECT_EQ(r.numbers[0].id, ids[0]);
    EXPECT_TRUE(r.numbers[0].isDefault);

    fake.failNext(FakeContactsService::Op::GetAllContacts, CONTACTS_ERROR_DB);
    EXPECT_EQ(fake.getAllContacts(all), CONTACTS_ERROR_DB);
    EXPECT_EQ(fake.getAllContacts(all), CONTACTS_ERROR_NONE);
    EXPECT_EQ(fake.disconnectOnThread(), CONTACTS_ERROR_NONE);
    EXPECT_EQ(fake.connectOnThreadCount(), 1);
    EXPECT_EQ(fake.disconnectOnThreadCount(), 1);

    callbackRuns = 0;
    ASSERT_EQ(fake.addChangedCallback(kContactsPersonViewUri, onChange, &fake),
              CONTACTS_ERROR_NONE);
    EXPECT_EQ(fake.fireChanged(kContactsContactViewUri), 0);
    EXPECT_EQ(fake.fireChanged(kContactsPersonViewUri), 1);
    EXPECT_EQ(callbackRuns, 1);
    EXPECT_EQ(fake.removeChangedCallback(kContactsPersonViewUri, onChange, &fake),
              CONTACTS_ERROR_NONE);
    EXPECT_EQ(fake.registrationCount(kContactsPersonViewUri), 0);
}

}  // namespace
