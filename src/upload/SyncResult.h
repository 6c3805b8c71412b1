// SyncResult: the outcome of posting one SyncData. A heap object owned by the list that holds it
// (the sync manager's `SyncResults`), deleted through its virtual destructor.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "upload/SyncData.h"

// One document's answer in a reply, as read from it: accepted (with its new revision) or refused
// as a conflict (with the server's revision). Other refusals are not kept.
struct DocAnswer {
    std::string id;
    std::string rev;
    bool conflict = false;
};

class SyncResult {
  public:
    // status values
    static constexpr int STATUS_FAILED = 0;
    static constexpr int STATUS_PARTIAL = 1;
    static constexpr int STATUS_SUCCESS = 2;
    static constexpr int STATUS_CONFLICT = 3;

    SyncResult() = default;
    virtual ~SyncResult() = default;

    int status = STATUS_FAILED;
    std::string jsonResponse;  // "[" + joined per-document answers + "]" after a post
    // The reply read into answers on the posting thread, which then releases jsonResponse; the
    // answers are applied once the session has closed (a result added unread is read then).
    enum class Reply { Unread, Read, Unreadable } reply = Reply::Unread;
    std::vector<DocAnswer> answers;
    int syncType = 1;
    int itemType = -1;
    // The rows the posted documents were composed from (shared by the results of one SyncData).
    std::shared_ptr<const SentRows> sentRows = std::make_shared<const SentRows>();
};
