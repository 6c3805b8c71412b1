#include "ClientSlots.h"

ClientSlots::Slot::~Slot() {
    if (owner_) {
        owner_->release(address_);
    }
}

ClientSlots::ClientSlots(std::size_t perClient) : perClient_(perClient) {}

bool ClientSlots::acquire(const std::string& address, Slot& slot) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::size_t& n = open_[address];
    if (n >= perClient_) {
        if (n == 0) {
            open_.erase(address);
        }
        return false;
    }
    ++n;
    slot.owner_ = this;
    slot.address_ = address;
    return true;
}

void ClientSlots::release(const std::string& address) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = open_.find(address);
    if (it != open_.end() && --it->second == 0) {
        open_.erase(it);
    }
}
