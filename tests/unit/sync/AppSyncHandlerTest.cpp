// The application collector's decisions on desktop entries read by the Linux package manager and
// a real shadow table: insert, ignore, update, removal, and the two applications every device has.

#include <pelio/platform/PackageManager.h>

#include <filesystem>
#include <fstream>

#include "PLMConstants.h"
#include "SyncHandlers/AppSyncHandler.h"
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

    // A desktop entry of the user's, or of the system's (a preinstalled application).
    void put(const std::string& package, const std::string& name, bool system = false,
             bool hidden = false) {
        const std::string dir = folder(system);
        std::filesystem::create_directories(dir);
        std::ofstream(dir + package + ".desktop")
            << "[Desktop Entry]\nType=Application\nExec=true\nName=" << name << "\n"
            << (hidden ? "NoDisplay=true\n" : "");
    }
    void remove(const std::string& package) {
        for (bool system : {false, true})
            std::filesystem::remove(folder(system) + package + ".desktop");
    }
    std::string folder(bool system) {
        return (system ? home_.path() + "/system/share" : home_.dataHome()) + "/applications/";
    }

    struct FreshPackageManager {  // the Linux one, reading this home
        FreshPackageManager() { pelio::platform::installPackageManager(nullptr); }
        ~FreshPackageManager() { pelio::platform::installPackageManager(nullptr); }
    } packages_;
    RecordingHost host_;
};

}  // namespace

TEST_F(AppSyncHandlerTest, InsertsVisibleApplicationsAndTheTwoEveryDeviceHas) {
    put("org.example.editor", "Edit'or");
    put("com.quorvin.wlocate", "Locate", true);
    put("hidden", "Hidden", true, true);
    put("com.quorvin.w-taskmanager", "Tasks", true, true);  // no-display: looked up

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
    put("com.quorvin.w-contacts2", "Contacts", true);
    put("com.quorvin.w-taskmanager", "Tasks", true);
    put("kept", "Kept");
    put("renamed", "Old name");
    put("removed", "Removed");
    AppSyncHandler handler(&host_);
    ASSERT_EQ(handler.syncData(98), 0);
    markUploaded();
    ASSERT_EQ(master_set_string(plm::APP_SYNC_STATUS_P, "2"), 0);
    EXPECT_EQ(handler.syncData(98), 2);  // nothing changed and in step: nothing to do
    EXPECT_EQ(master_get_value(plm::APP_SYNC_STATUS_P), "2");

    put("renamed", "New name");
    remove("removed");
    put("fresh", "Fresh");
    EXPECT_EQ(handler.syncData(98), 0);
    auto rows = table();
    EXPECT_EQ(rows["kept"], "4|Kept|0||1-a");
    EXPECT_EQ(rows["renamed"], "3|New name|0||1-a");
    EXPECT_EQ(rows["removed"], "2|Removed|0||1-a");
    EXPECT_EQ(rows["fresh"], "1|Fresh|0||");

    // Never uploaded and gone: removed locally, nothing to send. Back before its removal was
    // confirmed: an update of the document the server still has. A pending update stays one.
    remove("fresh");
    put("removed", "Removed");
    put("renamed", "Newer name");
    EXPECT_EQ(handler.syncData(98), 0);
    rows = table();
    EXPECT_EQ(rows.count("fresh"), 0u);
    EXPECT_EQ(rows["removed"], "3|Removed|0||1-a");
    EXPECT_EQ(rows["renamed"], "3|Newer name|0||1-a");

    // A forced collection sends every row again as an insert, keeping what the server has: an
    // application removed since the last sync still ends as a deletion.
    remove("renamed");
    EXPECT_EQ(handler.syncData(99), 0);
    rows = table();
    EXPECT_EQ(rows.size(), 5u);
    EXPECT_EQ(rows["kept"], "1|Kept|0||1-a");
    EXPECT_EQ(rows["renamed"], "2|Newer name|0||1-a");
}
