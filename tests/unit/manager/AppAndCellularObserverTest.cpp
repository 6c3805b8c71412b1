// The filters of the application and cellular observers, on the fake package manager and
// settings the manager fixture installs.
#include "ManagerTestSupport.h"
#include "observers/CellularObserver.h"

using namespace manager_test;

namespace {

class AppAndCellularObserverTest : public ManagerFixture {};

}  // namespace

TEST_F(AppAndCellularObserverTest,
       OnlyCompletedEventsOfOtherPackagesAndCellularStateZeroPassThrough) {
    start(false);
    ASSERT_TRUE(packages_->hasCallback());
    packages_->fireEvent("org.example.a", pp::PACKAGE_MANAGER_EVENT_TYPE_INSTALL,
                         pp::PACKAGE_MANAGER_EVENT_STATE_PROCESSING, 50);
    packages_->fireEvent("org.example.a", pp::PACKAGE_MANAGER_EVENT_TYPE_INSTALL,
                         pp::PACKAGE_MANAGER_EVENT_STATE_COMPLETED, 100, -1);
    packages_->fireEvent(plm::SERVICE_APP_ID, pp::PACKAGE_MANAGER_EVENT_TYPE_UPDATE,
                         pp::PACKAGE_MANAGER_EVENT_STATE_COMPLETED, 100);
    EXPECT_TRUE(domainRequests_.empty());

    packages_->fireEvent("org.example.a", pp::PACKAGE_MANAGER_EVENT_TYPE_UNINSTALL,
                         pp::PACKAGE_MANAGER_EVENT_STATE_COMPLETED, 100);
    EXPECT_EQ(domainRequests_, (Requests{{1, 98}}));
    EXPECT_EQ(status(plm::APP_SYNC_STATUS_P), "0");

    // Only a cellular state of zero reaches cellular_changed, which asks the waiting domains.
    domainRequests_.clear();
    statuses("0", "2", "2");
    settings_->setInt(CellularObserver::kCellularKey, 1);
    settings_->setInt(CellularObserver::kCellularKey, 3);
    settings_->setInt("memory/dnet/status", 0);
    EXPECT_TRUE(domainRequests_.empty());

    settings_->setInt(CellularObserver::kCellularKey, 0);
    EXPECT_EQ(domainRequests_, (Requests{{1, 98}}));

    PLMSyncManager::destroyInstance();
    EXPECT_FALSE(packages_->hasCallback());
    EXPECT_EQ(settings_->callbackCount(CellularObserver::kCellularKey), 0u);
}
