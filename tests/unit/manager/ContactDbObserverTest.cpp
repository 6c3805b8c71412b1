#include "ManagerTestSupport.h"
#include "observers/ContactDbObserver.h"

using namespace manager_test;

namespace {

class ContactDbObserverTest : public ManagerFixture {};

TEST_F(ContactDbObserverTest, BurstOfChangesGivesOneContactChangedAfterTheLastOne) {
    start(false);  // registers the observers with the contacts service
    for (int i = 0; i < 5; ++i) {
        contacts_->fireChanged(i % 2 == 0 ? pp::kContactsPersonViewUri
                                          : pp::kContactsContactViewUri);
    }
    ASSERT_EQ(timers_->created.size(), 5u);
    for (size_t i = 0; i < 4; ++i)
        EXPECT_TRUE(timers_->created[i]->deleted) << i;
    EXPECT_DOUBLE_EQ(timers_->created.back()->seconds, 10.0);
    EXPECT_TRUE(domainRequests_.empty());

    ASSERT_TRUE(timers_->tickLatest());
    EXPECT_EQ(domainRequests_, (Requests{{3, 98}}));
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "0");
    EXPECT_FALSE(timers_->tickLatest());  // one-shot

    // A change after the fired timer starts a fresh one; the next change replaces it; the
    // shutdown deletes the pending one and unregisters.
    contacts_->fireChanged(pp::kContactsPersonViewUri);
    contacts_->fireChanged(pp::kContactsContactViewUri);
    ASSERT_EQ(timers_->created.size(), 7u);
    EXPECT_TRUE(timers_->created[5]->deleted);
    PLMSyncManager::destroyInstance();
    EXPECT_TRUE(timers_->created[6]->deleted);
    EXPECT_EQ(contacts_->fireChanged(pp::kContactsPersonViewUri), 0);
}

TEST_F(ContactDbObserverTest, PhoneLogGoesThroughAtOnceAndUnknownUrisAreIgnored) {
    start(false);
    ContactDbObserver observer;
    LogCapture log;
    ContactDbObserver::__db_changed_cb(pp::kContactsPhoneLogViewUri, &observer);
    EXPECT_TRUE(log.hasMessage("calllog_changed"));
    ContactDbObserver::__db_changed_cb("pelio://media/audio", &observer);
    ContactDbObserver::__db_changed_cb("", &observer);
    ContactDbObserver::__db_changed_cb(pp::kContactsPersonViewUri, nullptr);
    EXPECT_TRUE(log.hasMessage("Un-recognizable view_uri"));
    EXPECT_TRUE(log.hasMessage("broken user_data"));
    EXPECT_TRUE(timers_->created.empty());
    EXPECT_FALSE(observer.hasPendingTimer());
    EXPECT_TRUE(domainRequests_.empty());
}

}  // namespace
