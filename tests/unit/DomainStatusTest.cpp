// pelioctl's status wording and progress arithmetic.
#include <gtest/gtest.h>

#include "DomainStatus.h"

TEST(DomainStatusTest, WordsFollowTheStatusValueAndWhetherTheServiceRuns) {
    DomainStatus d("contacts");
    EXPECT_EQ(d.state(true), DomainStatus::State::NeverSynced);
    d.setStatusValue("0");
    EXPECT_STREQ(DomainStatus::stateWords(d.state(true)), "sync running");
    EXPECT_STREQ(DomainStatus::stateWords(d.state(false)), "changes waiting");
    d.setStatusValue("1");
    EXPECT_STREQ(DomainStatus::stateWords(d.state(false)), "last sync failed");
    EXPECT_STREQ(DomainStatus::stateKey(d.state(false)), "last_sync_failed");
    d.setStatusValue("2");
    EXPECT_STREQ(DomainStatus::stateWords(d.state(true)), "in step");
    EXPECT_STREQ(DomainStatus::stateKey(d.state(true)), "in_step");
    d.setStatusValue("7");
    EXPECT_EQ(d.state(false), DomainStatus::State::Unknown);
}

TEST(DomainStatusTest, RowsWaitingByKind) {
    DomainStatus d("media");
    EXPECT_EQ(d.waitingWords(), "nothing waiting");
    d.addRows(1, 3);  // songs
    d.addRows(2, 1);
    d.addRows(3, 2);
    d.addRows(1, 1);  // playlists add up with songs
    d.addRows(4, 5);
    EXPECT_EQ(d.waitingWords(), "4 to add, 2 to change, 1 to delete");
    EXPECT_EQ(d.rows(), 12);
}

TEST(DomainStatusTest, ProgressIsConfirmedOfAllRowsRoundedDown) {
    DomainStatus d("contacts");
    EXPECT_EQ(d.percentConfirmed(), 100);  // nothing to confirm
    d.addRows(4, 1999);
    d.addRows(1, 1);
    EXPECT_EQ(d.percentConfirmed(), 99);  // never 100 while a row waits
    EXPECT_EQ(d.progressLine(), "contacts: 1999 of 2000 rows confirmed (99%)");
    d.addRows(-1, 2000);  // a flag outside 1-4 counts as a row, never as confirmed
    EXPECT_EQ(d.percentConfirmed(), 49);
    EXPECT_EQ(d.waitingWords(), "1 to add, 0 to change, 0 to delete");
}
