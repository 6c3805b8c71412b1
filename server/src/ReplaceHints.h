#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_set>

// Per device database: did its last bulk write find documents already stored that came without
// "_rev"? The gateway then looks their revisions up before it writes; otherwise it writes them as
// new documents first and looks up only those that conflicted, which saves one database request
// per post while a database fills up.
// At most `capacity` databases are remembered; when full, all are forgotten, which costs each of
// them one extra round at worst. Thread-safe (one mutex); no errors.
class ReplaceHints {
  public:
    explicit ReplaceHints(std::size_t capacity = 4096);

    bool expectsStored(const std::string& database) const;
    void remember(const std::string& database, bool foundStored);

  private:
    mutable std::mutex mutex_;
    std::unordered_set<std::string> stored_;
    std::size_t capacity_;
};
