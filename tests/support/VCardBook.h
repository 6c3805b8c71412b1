// Contacts data for unit tests: vCard files in the contacts folder of the current throw-away home
// (construct after the TempHome), read by the real Linux contacts service, which the object
// installs fresh for its life. No bus and no main loop: readers use their own thread's connection,
// which rescans the folder. Test thread only; failures are test failures.
#pragma once

#include <gtest/gtest.h>

#include <pelio/platform/Contacts.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace pelio::test {

class VCardBook {
  public:
    VCardBook() : root_(std::string(std::getenv("XDG_DATA_HOME")) + "/contacts/book/") {
        std::filesystem::create_directories(root_);
        pelio::platform::installContactsService(nullptr);
    }
    ~VCardBook() { pelio::platform::installContactsService(nullptr); }
    VCardBook(const VCardBook&) = delete;
    VCardBook& operator=(const VCardBook&) = delete;

    // Writes the card of uid, in its own file: FN (none when fn is empty), N from first and
    // last, then the extra lines (each ending in "\r\n"). Outside a batch this is one rescan,
    // and the contact's id is returned (0 inside a batch).
    int put(const std::string& uid, const std::string& fn, const std::string& extra = {}) {
        std::ofstream(root_ + uid + ".vcf", std::ios::trunc) << card(uid, fn, extra);
        return batch_ ? 0 : idOf(fn);
    }
    // Cards named prefix0 .. prefix<count-1> in one file, in one rescan: their ids are
    // consecutive, from the one returned.
    int putMany(const std::string& prefix, int count) {
        std::ofstream out(root_ + prefix + "-many.vcf", std::ios::trunc);
        for (int i = 0; i < count; ++i)
            out << card(prefix + std::to_string(i), prefix + std::to_string(i), {});
        out.close();
        return idOf(prefix + "0");
    }
    void remove(const std::string& uid) {
        std::filesystem::remove(root_ + uid + ".vcf");
        if (!batch_)
            version();
    }
    // Between these, files are only written; commit() rescans once, as one version.
    void begin() { batch_ = true; }
    void commit() {
        batch_ = false;
        version();
    }

    // After a rescan: the newest live contact of that display name (0: none).
    int idOf(const std::string& displayName) {
        std::vector<pelio::platform::ContactSummary> all;
        connected([&](pelio::platform::ContactsService& s) { s.getAllContacts(all); });
        int id = 0;
        for (const auto& c : all) {
            if (!c.deleted && c.displayName == displayName)
                id = c.id;
        }
        return id;
    }
    int version() {
        int v = -1;
        connected([&](pelio::platform::ContactsService& s) { s.getCurrentVersion(v); });
        return v;
    }
    std::vector<int> numberIds(int id) {
        pelio::platform::ContactRecord r;
        connected([&](pelio::platform::ContactsService& s) { s.getContactByPersonId(id, r); });
        std::vector<int> ids;
        for (const auto& n : r.numbers)
            ids.push_back(n.id);
        return ids;
    }

    // One card: UID (none when uid is empty), FN (none when fn is empty), then the extra lines.
    static std::string card(const std::string& uid, const std::string& fn,
                            const std::string& extra) {
        return "BEGIN:VCARD\r\nVERSION:3.0\r\n" + (uid.empty() ? "" : "UID:" + uid + "\r\n") +
               (fn.empty() ? "" : "FN:" + fn + "\r\n") + extra + "END:VCARD\r\n";
    }

  private:
    template <typename F>
    void connected(F&& use) {
        auto& service = pelio::platform::contactsService();
        ASSERT_EQ(service.connectOnThread(), pelio::platform::CONTACTS_ERROR_NONE);
        use(service);
        service.disconnectOnThread();
    }

    std::string root_;
    bool batch_ = false;
};

}  // namespace pelio::test
