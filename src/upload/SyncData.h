// SyncData: one upload request of a domain, made by the composers and posted by the uploader.
// A heap object deleted through its virtual destructor by whoever holds it. Not synchronised:
// one thread (the sync worker) uses it at a time.
#pragma once

#include <string>
#include <vector>

class SyncData {
  public:
    SyncData() = default;
    virtual ~SyncData() = default;

    std::string message;                 // the JSON document being posted now
    std::vector<std::string> documents;  // the composed upload bodies, in order
    int itemType = -1;                   // sync item (domain)
    int syncType = 1;                    // kind of sync
    int insertedCount = -1;
    int deletedCount = -1;
    int updatedCount = -1;
};
