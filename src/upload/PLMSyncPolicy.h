// PLMSyncPolicy: receives the server's sync policy factors. It keeps nothing: the factors are
// logged only, and this is where a later use of them attaches. Made for one policy document on
// the sync worker thread and destroyed right after.
#pragma once

class PLMSyncPolicy {
  public:
    PLMSyncPolicy();
    ~PLMSyncPolicy();

    void setSyncPolicy(double d, double e, double f, double g, double h, double m, double r,
                       double t);
};
