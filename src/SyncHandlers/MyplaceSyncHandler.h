// MyplaceSyncHandler: the places domain, declared but without data yet. syncData() succeeds at
// once; nothing is collected, stored or composed. Any thread; no state.
#pragma once

class MyplaceSyncHandler {
  public:
    MyplaceSyncHandler();
    ~MyplaceSyncHandler();
    MyplaceSyncHandler(const MyplaceSyncHandler&) = delete;
    MyplaceSyncHandler& operator=(const MyplaceSyncHandler&) = delete;

    // Always 0 (success).
    int syncData();
};
