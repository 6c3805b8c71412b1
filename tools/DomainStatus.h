// One sync domain as pelioctl shows it: the status value of the master table, the shadow rows by
// dirty flag, the PLM id, and the words and progress figures made of them.
//
// A plain value: no I/O, any thread. pelioctl fills it from the shadow database and the
// preference store (ShadowDatabase, the preferences module) and prints what it says.
#pragma once

#include <string>

class DomainStatus {
  public:
    // The state in one word for scripts and in words for people (names in DomainStatus.cpp, in
    // this order).
    enum class State { NeverSynced, Running, Waiting, Failed, InStep, Unknown };

    // name: "contacts", "applications" or "media".
    explicit DomainStatus(std::string name);

    // The domain's *_SYNC_STATUS_P value ("0", "1", "2"); not calling it means "never synced".
    void setStatusValue(const std::string& value);
    // n shadow rows carry this dirty flag (1 to add, 2 to delete, 3 to change, 4 confirmed);
    // adds up over calls (media counts songs and playlists).
    void addRows(int dirty, long n);
    void setPlmId(const std::string& id) { plmId_ = id; }

    const std::string& name() const { return name_; }
    const std::string& statusValue() const { return statusValue_; }
    const std::string& plmId() const { return plmId_; }
    long toAdd() const { return toAdd_; }
    long toChange() const { return toChange_; }
    long toDelete() const { return toDelete_; }
    long confirmed() const { return confirmed_; }
    long rows() const { return toAdd_ + toChange_ + toDelete_ + confirmed_ + otherRows_; }

    // "0" reads as a running sync while the service runs, as changes waiting when it does not.
    State state(bool serviceRunning) const;
    static const char* stateKey(State state);    // "in_step", "changes_waiting", ...
    static const char* stateWords(State state);  // "in step", "changes waiting", ...
    // "3 to add, 1 to change, 0 to delete", or "nothing waiting".
    std::string waitingWords() const;
    // Whole per cent of rows confirmed, rounded down (100 only when all are); 100 with no rows.
    int percentConfirmed() const;
    // "contacts: 1500 of 2000 rows confirmed (75%)".
    std::string progressLine() const;

  private:
    std::string name_;
    std::string statusValue_;
    bool hasStatus_ = false;
    std::string plmId_;
    long toAdd_ = 0;
    long toChange_ = 0;
    long toDelete_ = 0;
    long confirmed_ = 0;
    long otherRows_ = 0;  // a flag outside 1-4: counted in the total, never as confirmed
};
