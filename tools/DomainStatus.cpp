#include "DomainStatus.h"

#include <utility>

DomainStatus::DomainStatus(std::string name) : name_(std::move(name)) {}

void DomainStatus::setStatusValue(const std::string& value) {
    statusValue_ = value;
    hasStatus_ = true;
}

void DomainStatus::addRows(int dirty, long n) {
    switch (dirty) {
        case 1:
            toAdd_ += n;
            break;
        case 2:
            toDelete_ += n;
            break;
        case 3:
            toChange_ += n;
            break;
        case 4:
            confirmed_ += n;
            break;
        default:
            otherRows_ += n;
            break;
    }
}

DomainStatus::State DomainStatus::state(bool serviceRunning) const {
    if (!hasStatus_)
        return State::NeverSynced;
    if (statusValue_ == "0")
        return serviceRunning ? State::Running : State::Waiting;
    if (statusValue_ == "1")
        return State::Failed;
    if (statusValue_ == "2")
        return State::InStep;
    return State::Unknown;
}

namespace {

// Per state: the word for scripts and the words for people, in the order of State.
struct StateNames {
    const char* key;
    const char* words;
};
constexpr StateNames kStateNames[] = {
    {"never_synced", "never synced"},
    {"sync_running", "sync running"},
    {"changes_waiting", "changes waiting"},
    {"last_sync_failed", "last sync failed"},
    {"in_step", "in step"},
    {"unknown", "unknown state"},
};

const StateNames& namesOf(DomainStatus::State state) {
    return kStateNames[static_cast<int>(state)];
}

}  // namespace

const char* DomainStatus::stateKey(State state) {
    return namesOf(state).key;
}

const char* DomainStatus::stateWords(State state) {
    return namesOf(state).words;
}

std::string DomainStatus::waitingWords() const {
    if (toAdd_ + toChange_ + toDelete_ == 0)
        return "nothing waiting";
    return std::to_string(toAdd_) + " to add, " + std::to_string(toChange_) + " to change, " +
           std::to_string(toDelete_) + " to delete";
}

int DomainStatus::percentConfirmed() const {
    const long all = rows();
    if (all <= 0)
        return 100;
    return static_cast<int>(confirmed_ * 100 / all);
}

std::string DomainStatus::progressLine() const {
    return name_ + ": " + std::to_string(confirmed_) + " of " + std::to_string(rows()) +
           " rows confirmed (" + std::to_string(percentConfirmed()) + "%)";
}
