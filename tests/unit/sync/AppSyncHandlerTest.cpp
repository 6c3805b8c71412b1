// The application collector's decisions on a fake package manager and a real shadow table:
// insert, ignore, update, removal, and the two applications every device has.

#include "PLMConstants.h"
#include "SyncHandlers/AppSyncHandler.h"
#include "doubles/FakePackageManager.h"
#include "unit/sync/SyncTestSupport.h"
#include "upload/PLMSyncMasterTable.h"

using namespace pelio::test;

namespace {

class AppSyncHandlerTest : public SyncStoreTest {
  protected:
    // package -> "dirty|name|pre_installed|custom_id|rev_id" of its row (NULL shown as "").
    std::map<std::string, std::string> table() {
        std::map<std::string, std::string> out;
        for (const auto& row : query("SELECT _id, dirty, name, pre_installed, custom_id, rev_id "
                                     "FROM application")) {
            const auto bar = row.find('|');
            EXPECT_TRUE(out.emplace(row.substr(0, bar), row.substr(bar + 1)).second) << row;
        }
        return out;
    }
    // What an accepted upload leaves: every row in step, with a revision.
    void markUploaded() { exec("UPDATE application SET dirty = 4, rev_id = '1-a'"); }

    Installed<FakePackageManager, &pelio::platform::installPackageManager> packages_;
    RecordingHost host_;
};

}  // namespace

TEST_F(AppSyncHandlerTest, InsertsVisibleApplicationsAndTheTwoEveryDeviceHas) {
    packages_->put("org.example.editor", "Edit'or");
    packages_->put("com.quorvin.wlocate", "Locate", true);
    packages_->put("hidden", "Hidden", true, true);
    packages_->put("com.quorvin.w-taskmanager", "Tasks", true, true);  // no-display: looked up

    AppSyncHandler handler(&host_);
    EXPECT_EQ(handler.syncData(98), 0);
    EXPECT_EQ(table(), (std::map<std::string, std::string>{
                           {"org.example.editor", "1|Edit'or|0||"},
                           {"com.quorvin.wlocate", "1|Locate|1|locatephone001|"},
                           {"com.quorvin.w-contacts2", "1|Contacts|1|contacts001|"},
                           {"com.quorvin.w-taskmanager", "1|Tasks|1||"},
                       }));

    // Nothing changed: every row stays as it is (pending inserts stay pending).
    const auto first = table();
    EXPECT_EQ(handler.syncData(98), 0);
    EXPECT_EQ(table(), first);
}

TEST_F(AppSyncHandlerTest, UpdatesRemovalsAndReturnsFollowTheServerState) {
    packages_->put("com.quorvin.w-contacts2", "Contacts", true);
    packages_->put("com.quorvin.w-taskmanager", "Tasks", true);
    packages_->put("kept", "Kept");
    packages_->put("renamed", "Old name");
    packages_->put("removed", "Removed");
    AppSyncHandler handler(&host_);
    ASSERT_EQ(handler.syncData(98), 0);
    markUploaded();
    ASSERT_EQ(master_set_string(plm::APP_SYNC_STATUS_P, "2"), 0);
    EXPECT_EQ(handler.syncData(98), 2);  // nothing changed and in step: nothing to do
    EXPECT_EQ(master_get_value(plm::APP_SYNC_STATUS_P), "2");

    packages_->put("renamed", "New name");
    packages_->remove("removed");
    packages_->put("fresh", "Fresh");
    EXPECT_EQ(handler.syncData(98), 0);
    auto rows = table();
    EXPECT_EQ(rows["kept"], "4|Kept|0||1-a");
    EXPECT_EQ(rows["renamed"], "3|New name|0||1-a");
    EXPECT_EQ(rows["removed"], "2|Removed|0||1-a");
    EXPECT_EQ(rows["fresh"], "1|Fresh|0||");

    // Never uploaded and gone: removed locally, nothing to send. Back before its removal was
    // confirmed: an update of the document the server still has. A pending update stays one.
    packages_->remove("fresh");
    packages_->put("removed", "Removed");
    packages_->put("renamed", "Newer name");
    EXPECT_EQ(handler.syncData(98), 0);
    rows = table();
    EXPECT_EQ(rows.count("fresh"), 0u);
    EXPECT_EQ(rows["removed"], "3|Removed|0||1-a");
    EXPECT_EQ(rows["renamed"], "3|Newer name|0||1-a");

    // A forced collection sends every row again as an insert, keeping what the server has: an
    // application removed since the last sync still ends as a deletion.
    packages_->remove("renamed");
    EXPECT_EQ(handler.syncData(99), 0);
    rows = table();
    EXPECT_EQ(rows.size(), 5u);
    EXPECT_EQ(rows["kept"], "1|Kept|0||1-a");
    EXPECT_EQ(rows["renamed"], "2|Newer name|0||1-a");
}
