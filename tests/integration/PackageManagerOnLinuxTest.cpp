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

    // A long listing is read by two threads: the same order, each entry judged on its own.
    std::vector<std::string> expected;
    for (int i = 0; i < 100; ++i) {
        const std::string id = (i < 10 ? "bulk-0" : "bulk-") + std::to_string(i);
        const bool named = i % 25 != 7, shown = i % 10 != 3;
        writeEntry(user, id + ".desktop",
                   (named ? "Name=B" + std::to_string(i) + "\n" : std::string("Comment=none\n")) +
                       (shown ? "" : "NoDisplay=true\n"));
        if (named && shown)
            expected.push_back(id + "=B" + std::to_string(i));
    }
    ASSERT_EQ(pm.listApplications(pp::AppDisplayFilter::VisibleOnly, "en_US", apps), 0);
    std::vector<std::string> bulk;
    for (const auto& a : apps)
        if (a.packageName.rfind("bulk-", 0) == 0)
            bulk.push_back(a.packageName + "=" + a.label);
    EXPECT_EQ(bulk, expected);
    EXPECT_TRUE(log.contains("bulk-07.desktop has no name") &&
                log.contains("bulk-82.desktop has no name"));
    pp::installPackageManager(nullptr);
}

TEST(PackageManagerOnLinuxTest, AcceptsOnlyApplicationEntriesWhoseProgramsAreInstalled) {
    pelio::test::TempHome home;
    pelio::test::LogCapture log;
    const std::string user = home.dataHome() + "/applications";
    const std::string bin = home.path() + "/bin";
    fs::create_directories(bin);
    std::ofstream(bin + "/pelio-tool") << "#!/bin/sh\n";
    chmod((bin + "/pelio-tool").c_str(), 0755);
    std::ofstream(bin + "/pelio-plain") << "not a program\n";  // not executable
    struct PathGuard {  // the test's programs first; the old PATH back at the end
        std::string old = std::getenv("PATH") != nullptr ? std::getenv("PATH") : "";
        ~PathGuard() { setenv("PATH", old.c_str(), 1); }
    } path;
    setenv("PATH", (bin + ":" + path.old).c_str(), 1);

    // name -> (entry body, accepted): an entry is listed when its first group is "Desktop
    // Entry", its Type is Application, and a non-empty TryExec or Exec names an installed program.
    struct Case {
        std::string body;
        bool accepted;
    };
    const std::map<std::string, Case> cases = {
        {"plain", {"[Desktop Entry]\nType=Application\nName=A\nExec=pelio-tool %U\n", true}},
        {"quoted", {"[Desktop Entry]\nType=Application\nName=A\nExec=\"pelio-tool\" -x\n", true}},
        {"absolute",
         {"[Desktop Entry]\nType=Application\nName=A\nExec=" + bin + "/pelio-tool\n", true}},
        {"noexec", {"[Desktop Entry]\nType=Application\nName=A\n", true}},
        {"emptyexec", {"[Desktop Entry]\nType=Application\nName=A\nExec=\nTryExec=\n", true}},
        {"tryexec", {"[Desktop Entry]\nType=Application\nName=A\nTryExec=pelio-tool\n", true}},
        {"hidden",
         {"[Desktop Entry]\nType=Application\nName=A\nExec=pelio-tool\nHidden=true\n", true}},
        {"nodisplay",
         {"[Desktop Entry]\nType=Application\nName=A\nExec=pelio-tool\nNoDisplay=true\n", true}},
        {"comment",
         {"# first\n[Desktop Entry]\nType=Application\nName=A\nExec=pelio-tool\n", true}},
        {"tryexecmissing",
         {"[Desktop Entry]\nType=Application\nName=A\nExec=pelio-tool\nTryExec=pelio-none\n",
          false}},
        {"tryexecplain",
         {"[Desktop Entry]\nType=Application\nName=A\nTryExec=" + bin + "/pelio-plain\n", false}},
        {"execmissing", {"[Desktop Entry]\nType=Application\nName=A\nExec=pelio-none -x\n", false}},
        {"execunparsable",
         {"[Desktop Entry]\nType=Application\nName=A\nExec='pelio-tool\n", false}},
        {"execonlycomment",
         {"[Desktop Entry]\nType=Application\nName=A\nExec=#pelio-tool\n", false}},
        {"link", {"[Desktop Entry]\nType=Link\nName=A\nURL=file:///\n", false}},
        {"notype", {"[Desktop Entry]\nName=A\nExec=pelio-tool\n", false}},
        {"othergroup",
         {"[Other]\nA=1\n[Desktop Entry]\nType=Application\nName=A\nExec=pelio-tool\n", false}},
    };
    fs::create_directories(user);
    for (const auto& [name, c] : cases)
        std::ofstream(user + "/" + name + ".desktop") << c.body;

    std::vector<pp::AppInfo> apps;
    ASSERT_EQ(pp::packageManager().listApplications(pp::AppDisplayFilter::Any, "", apps), 0);
    const auto all = byId(apps);
    for (const auto& [name, c] : cases)
        EXPECT_EQ(all.count(name) == 1, c.accepted) << name;
    EXPECT_TRUE(all.at("hidden").noDisplay && all.at("nodisplay").noDisplay &&
                !all.at("plain").noDisplay);
    EXPECT_TRUE(log.contains("execmissing.desktop is not a valid application entry"));

    pp::AppInfo one;
    EXPECT_EQ(pp::packageManager().getApplication("execmissing", "", one),
              pp::PACKAGE_MANAGER_ERROR_NO_SUCH_PACKAGE);
    EXPECT_EQ(pp::packageManager().getApplication("tryexec", "", one),
              pp::PACKAGE_MANAGER_ERROR_NONE);
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
