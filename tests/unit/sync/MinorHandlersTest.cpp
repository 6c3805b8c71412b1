// The contact-groups and places handlers accept a sync and succeed without collecting.
#include <gtest/gtest.h>

#include "SyncHandlers/ContactGroupsSyncHandler.h"
#include "SyncHandlers/MyplaceSyncHandler.h"
#include "unit/sync/SyncTestSupport.h"

using namespace pelio::test;

TEST_F(SyncStoreTest, MinorHandlersSucceedWithoutCollecting) {
    RecordingHost host;
    ContactGroupsSyncHandler groups(&host);
    EXPECT_EQ(groups.syncData(98), 0);
    MyplaceSyncHandler places;
    EXPECT_EQ(places.syncData(), 0);
    EXPECT_TRUE(rows().empty());
    EXPECT_TRUE(host.queuedItems().empty());
}
