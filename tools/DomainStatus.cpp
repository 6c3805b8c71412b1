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

const char* DomainStatus::stateKey(State state) {
    switch (state) {
        case State::NeverSynced:
            return "never_synced";
        case State::Running:
            return "sync_running";
        case State::Waiting:
            return "changes_waiting";
        case State::Failed:
            return "last_sync_failed";
        case State::InStep:
            return "in_step";
        case State::Unknown:
            break;
    }
    return "unknown";
}

const char* DomainStatus::stateWords(State state) {
    switch (state) {
        case State::NeverSynced:
            return "never synced";
        case State::Running:
            return "sync running";
        case State::Waiting:
            return "changes waiting";
        case State::Failed:
            return "last sync failed";
        case State::InStep:
            return "in step";
        case State::Unknown:
            break;
    }
    return "unknown state";
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
