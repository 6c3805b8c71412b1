#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <string>

// Open connections per client address, bounded. acquire() takes a slot for an address (false
// when the address holds `perClient` already); the Slot releases it when destroyed.
// Thread-safe (one internal mutex); a Slot must not outlive its ClientSlots.
class ClientSlots {
  public:
    class Slot {
      public:
        Slot() = default;
        Slot(const Slot&) = delete;
        Slot& operator=(const Slot&) = delete;
        ~Slot();
        explicit operator bool() const { return owner_ != nullptr; }

      private:
        friend class ClientSlots;
        ClientSlots* owner_ = nullptr;
        std::string address_;
    };

    explicit ClientSlots(std::size_t perClient);

    // Fills `slot` and returns true when `address` is under its bound.
    bool acquire(const std::string& address, Slot& slot);

  private:
    void release(const std::string& address);

    const std::size_t perClient_;
    std::mutex mutex_;
    std::map<std::string, std::size_t> open_;
};
