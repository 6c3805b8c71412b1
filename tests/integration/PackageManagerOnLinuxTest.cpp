// The Linux package manager on desktop entries in a throw-away home.
#include <gtest/gtest.h>

#include <Ecore.h>
#include <sys/stat.h>

#include <pelio/platform/MainLoop.h>
#include <pelio/platform/PackageManager.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "support/MainLoopWait.h"
#include "support/TempHome.h"

namespace pp = pelio::platform;
namespace fs = std::filesystem;

namespace {

void writeEntry(const std::string& folder, const std::string& file, const std::string& body) {
    fs::create_directories(folder);
    std::ofstream(folder + "/" + file) << "[Desktop Entry]\nType=Application\nExec=true\n" << body;
}

std::map<std::string, pp::AppInfo> byId(const std::vector<pp::AppInfo>& apps) {
    std::map<std::string, pp::AppInfo> out;
    for (const auto& a : apps)
        out[a.packageName] = a;
    return out;
}

struct Event {
    std::string package;
    int type;
    int state;
    int progress;
};

void onEvent(const char*, const char* package, pp::PackageEventType type,
             pp::PackageEventState state, int progress, int, void* data) {
    static_cast<std::vector<Event>*>(data)->push_back({package, type, state, progress});
    pp::quitMainLoop();
}

void waitFor(const std::vector<Event>& events, size_t n) {
    pelio::test::runMainLoopUntil([&] { return events.size() >= n; });
}

}  // namespace

TEST(PackageManagerOnLinuxTest, ListsEntriesOfUserAndSystemFoldersWithTheirProperties) {
    pelio::test::TempHome home;
    pelio::test::LogCapture log;
    const std::string user = home.dataHome() + "/applications";
    const std::string system = home.path() + "/system/share/applications";
    setenv("XDG_DATA_DIRS", (home.path() + "/system/share//").c_str(), 1);  // slashes trimmed
    writeEntry(user, "org.example.editor.desktop",
               "Name=Editor\nName[de]=Bearbeiter\nX-AppVersion=1.2\n");
    writeEntry(system, "com.quorvin.wlocate.desktop", "Name=Locate\n");
    writeEntry(system, "org.example.editor.desktop", "Name=System editor\n");  // masked by user
    writeEntry(system, "hidden.desktop", "Name=Hidden\nNoDisplay=true\n");
    writeEntry(user, "gone.desktop", "Name=Gone\nHidden=true\n");
    writeEntry(system + "/kde", "tool.desktop", "Name=Tool\n");
    writeEntry(system, "noname.desktop", "Comment=nothing\n");
    fs::create_directories(system);
    std::ofstream(system + "/broken.desktop") << "this is not a key file\n";

    auto& pm = pp::packageManager();
    std::vector<pp::AppInfo> apps;
    ASSERT_EQ(pm.listApplications(pp::AppDisplayFilter::Any, "de-DE.UTF-8", apps),
              pp::PACKAGE_MANAGER_ERROR_NONE);
    auto all = byId(apps);
    ASSERT_EQ(all.size(), 5u);
    const pp::AppInfo &editor = all["org.example.editor"], &locate = all["com.quorvin.wlocate"];
    EXPECT_EQ(
        editor.label + "|" + editor.version + "|" + locate.version + "|" + all["kde-tool"].label,
        "Bearbeiter|1.2||Tool");
    EXPECT_TRUE(!editor.preloaded && locate.preloaded && all["hidden"].noDisplay &&
                all["gone"].noDisplay);
    EXPECT_TRUE(log.contains("noname.desktop has no name") &&
                log.contains("broken.desktop is not a valid desktop entry"));

    ASSERT_EQ(pm.listApplications(pp::AppDisplayFilter::VisibleOnly, "en_US", apps), 0);
    all = byId(apps);
    EXPECT_EQ(all.size(), 3u);
    EXPECT_EQ(all["org.example.editor"].label, "Editor");

    pp::AppInfo one;
    EXPECT_EQ(pm.getApplication("hidden", "en_US", one), pp::PACKAGE_MANAGER_ERROR_NONE);
    EXPECT_EQ(one.label, "Hidden");
    EXPECT_EQ(pm.getApplication("absent", "en_US", one), pp::PACKAGE_MANAGER_ERROR_NO_SUCH_PACKAGE);

    // An unreadable system folder: logged, the user's entries still listed.
    if (geteuid() != 0) {
        chmod(system.c_str(), 0);
        ASSERT_EQ(pm.listApplications(pp::AppDisplayFilter::Any, "en_US", apps), 0);
        chmod(system.c_str(), 0755);
        EXPECT_EQ(byId(apps).size(), 2u);
        EXPECT_TRUE(log.contains("cannot be read"));
    }
    pp::installPackageManager(nullptr);
}

TEST(PackageManagerOnLinuxTest, InstallUpdateAndRemovalArriveAsCompletedEvents) {
    pelio::test::TempHome home;
    pp::MainLoopScope loop;
    const std::string user = home.dataHome() + "/applications";
    writeEntry(user, "a.desktop", "Name=A\n");
    auto& pm = pp::packageManager();
    std::vector<Event> events;
    ASSERT_EQ(pm.setEventCallback(&onEvent, &events), pp::PACKAGE_MANAGER_ERROR_NONE);

    writeEntry(user, "b.desktop", "Name=B\n");
    waitFor(events, 1);
    writeEntry(user, "a.desktop", "Name=A2\n");
    waitFor(events, 2);
    fs::remove(user + "/b.desktop");
    waitFor(events, 3);
    pm.unsetEventCallback();

    ASSERT_EQ(events.size(), 3u);
    const std::pair<std::string, int> expected[] = {
        {"b", pp::PACKAGE_MANAGER_EVENT_TYPE_INSTALL},
        {"a", pp::PACKAGE_MANAGER_EVENT_TYPE_UPDATE},
        {"b", pp::PACKAGE_MANAGER_EVENT_TYPE_UNINSTALL}};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(std::pair(events[i].package, events[i].type), expected[i]) << i;
        EXPECT_TRUE(events[i].state == pp::PACKAGE_MANAGER_EVENT_STATE_COMPLETED &&
                    events[i].progress == 100);
    }
    pp::installPackageManager(nullptr);
}
