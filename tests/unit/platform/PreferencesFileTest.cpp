#include <gtest/gtest.h>
#include <sys/stat.h>

#include <pelio/platform/Preferences.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/LogCapture.h"

using namespace pelio::platform;

namespace {

class PreferencesFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char templ[] = "/tmp/pelio-prefs-XXXXXX";
        dir_ = mkdtemp(templ);
        file_ = dir_ + "/.preferences.ini";
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string contents(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    std::string dir_, file_;
    pelio::test::LogCapture log_;
};

TEST_F(PreferencesFileTest, TypedValuesPersistAcrossInstancesAndTypesAreChecked) {
    {
        auto prefs = openPreferencesFile(file_, false);
        EXPECT_EQ(0, prefs->setInt("port", -8443));
        EXPECT_EQ(0, prefs->setDouble("ratio", 0.1));
        EXPECT_EQ(0, prefs->setBoolean("is_force", true));
        EXPECT_EQ(0, prefs->setString("#odd [key]=x\n%", "line1\nline2 \\ = end"));
        EXPECT_EQ(0, prefs->setString("empty", ""));
        EXPECT_EQ(PREFERENCE_ERROR_INVALID_PARAMETER, prefs->setString("", "v"));
        EXPECT_EQ(PREFERENCE_ERROR_INVALID_PARAMETER, prefs->setString("bytes", "\xff\xfe"));
    }
    auto prefs = openPreferencesFile(file_, false);
    int port = 0;
    double ratio = 0;
    bool force = false;
    std::string text = "before", empty = "before";
    EXPECT_EQ(0, prefs->getInt("port", port) | prefs->getDouble("ratio", ratio) |
                     prefs->getBoolean("is_force", force) |
                     prefs->getString("#odd [key]=x\n%", text) | prefs->getString("empty", empty));
    EXPECT_TRUE(port == -8443 && ratio == 0.1 && force && empty.empty());
    EXPECT_EQ("line1\nline2 \\ = end", text);

    // A get with another type is an error and leaves the output alone.
    text = "kept";
    EXPECT_EQ(PREFERENCE_ERROR_NO_KEY, prefs->getString("port", text));
    EXPECT_EQ("kept", text);
    EXPECT_EQ(PREFERENCE_ERROR_NO_KEY, prefs->getInt("is_force", port));
    EXPECT_EQ(PREFERENCE_ERROR_NO_KEY, prefs->getInt("missing", port));
    // A set with another type replaces the type.
    EXPECT_EQ(0, prefs->setString("port", "x"));
    EXPECT_EQ(PREFERENCE_ERROR_NO_KEY, prefs->getInt("port", port));

    bool before = false, after = true;
    EXPECT_EQ(0, prefs->isExisting("ratio", before) | prefs->remove("ratio") |
                     prefs->isExisting("ratio", after));
    EXPECT_TRUE(before && !after);
    EXPECT_EQ(PREFERENCE_ERROR_NO_KEY, prefs->remove("ratio"));

    std::string listed;
    for (const auto& item : prefs->items())
        listed += item.key + "=" + preferenceTypeName(item.type) + ":" + item.value + ";";
    EXPECT_EQ(
        "#odd [key]=x\n%=string:line1\nline2 \\ = end;empty=string:;is_force=bool:true;"
        "port=string:x;",
        listed);

    struct stat st;
    ASSERT_EQ(0, stat(file_.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777u);
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(dir_), {}));  // no temp files
}

TEST_F(PreferencesFileTest, ReadOnlyStoreNeverWritesAndWritesFailWithIoError) {
    EXPECT_EQ(PREFERENCE_ERROR_IO_ERROR,
              openPreferencesFile(dir_ + "/no/such/dir/prefs.ini", false)->setInt("a", 1));
    EXPECT_TRUE(log_.contains("preferences: cannot write"));

    auto missing = openPreferencesFile(file_, true);
    EXPECT_TRUE(missing->items().empty());
    EXPECT_EQ(PREFERENCE_ERROR_IO_ERROR, missing->setInt("a", 1));
    EXPECT_FALSE(std::filesystem::exists(file_));

    openPreferencesFile(file_, false)->setInt("a", 1);
    const std::string before = contents(file_);
    auto ro = openPreferencesFile(file_, true);
    EXPECT_EQ(PREFERENCE_ERROR_IO_ERROR, ro->setString("b", "x"));
    EXPECT_EQ(PREFERENCE_ERROR_IO_ERROR, ro->remove("a"));
    int a = 0;
    EXPECT_TRUE(ro->getInt("a", a) == 0 && a == 1);
    EXPECT_EQ(before, contents(file_));
}

TEST_F(PreferencesFileTest, DamagedFileIsLoggedTreatedAsEmptyAndKeptAside) {
    const std::vector<std::string> damaged = {
        "garbage without group\n",      "[int]\nport=notanumber\n",
        "[int]\nport=99999999999\n",    "[other]\nkey=1\n",
        "[string]\nnoequals\n",         "[bool]\nflag=maybe\n",
        "[string]\nk=bad escape \\q\n", "[string]\nk=\xff\n",
        "[string]\nbad%4=1\n",          "[int]\nk=1\n[string]\nk=1\n",
        std::string("\0\1\2\3", 4),
    };
    for (const auto& text : damaged) {
        std::filesystem::remove(file_ + ".damaged");
        std::ofstream(file_, std::ios::binary) << text;
        log_.clear();
        auto prefs = openPreferencesFile(file_, false);
        bool existing = true;
        int port = 0;
        EXPECT_TRUE(prefs->isExisting("port", existing) == 0 && !existing &&
                    prefs->items().empty() && log_.contains("damaged store"))
            << text;
        // The next write starts a fresh store and keeps the damaged one for inspection.
        EXPECT_EQ(0, prefs->setInt("port", 1) | prefs->getInt("port", port));
        EXPECT_TRUE(port == 1 && contents(file_ + ".damaged") == text) << text;
    }
    // An unreadable store (here a folder in its place) is handled the same way.
    std::filesystem::remove_all(file_ + ".damaged");
    std::filesystem::remove(file_);
    std::filesystem::create_directory(file_);
    auto prefs = openPreferencesFile(file_, false);
    EXPECT_TRUE(prefs->items().empty());
    EXPECT_TRUE(log_.contains("preferences: cannot read"));
    EXPECT_EQ(0, prefs->setInt("port", 2));
    EXPECT_TRUE(std::filesystem::is_directory(file_ + ".damaged"));
    EXPECT_EQ(1u, prefs->items().size());
    std::filesystem::remove(file_);
    // An empty file is an empty store, not damage.
    std::ofstream(file_, std::ios::trunc).close();
    log_.clear();
    EXPECT_TRUE(openPreferencesFile(file_, false)->items().empty());
    EXPECT_FALSE(log_.contains("damaged store"));
}

TEST_F(PreferencesFileTest, ThreadedWritersNeverTearTheFile) {
    auto prefs = openPreferencesFile(file_, false);
    std::atomic<bool> done{false};
    std::atomic<int> torn{0};
    std::thread reader([&] {
        // Another instance on the same file sees complete stores only.
        auto other = openPreferencesFile(file_, true);
        while (!done) {
            for (const auto& item : other->items())
                if (item.value != "v" + item.key.substr(1))
                    ++torn;
        }
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < 3; ++t)
        writers.emplace_back([&, t] {
            for (int i = 0; i < 30; ++i) {
                const std::string n = std::to_string(t * 100 + i);
                prefs->setString("k" + n, "v" + n);
            }
        });
    for (auto& w : writers)
        w.join();
    done = true;
    reader.join();
    EXPECT_EQ(0, torn.load());
    EXPECT_EQ(90u, prefs->items().size());
    EXPECT_FALSE(log_.contains("damaged store"));
}

}  // namespace
