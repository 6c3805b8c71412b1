#include "ReplaceHints.h"

ReplaceHints::ReplaceHints(std::size_t capacity) : capacity_(capacity) {}

bool ReplaceHints::expectsStored(const std::string& database) const {
    const std::lock_guard lock(mutex_);
    return stored_.count(database) != 0;
}

void ReplaceHints::remember(const std::string& database, bool foundStored) {
    const std::lock_guard lock(mutex_);
    if (!foundStored) {
        stored_.erase(database);
        return;
    }
    if (stored_.size() >= capacity_) {
        stored_.clear();
    }
    stored_.insert(database);
}
