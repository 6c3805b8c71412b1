// NetworkMgr: connectivity through the platform connection service. Owned by the sync manager;
// getConnected() is called on the sync worker thread and is safe from any thread. Failures answer
// "not connected" with a log line.
#pragma once

class NetworkMgr {
  public:
    NetworkMgr() = default;
    virtual ~NetworkMgr() = default;

    void init();    // logs only
    void deInit();  // logs only
    // True unless the connection type is "disconnected" (or the service cannot be asked).
    virtual bool getConnected();
};
