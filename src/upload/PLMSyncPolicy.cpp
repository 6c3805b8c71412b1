#include "upload/PLMSyncPolicy.h"

#include "PelioLog.h"

PLMSyncPolicy::PLMSyncPolicy() {
    LOGD("");
}

PLMSyncPolicy::~PLMSyncPolicy() {
    LOGD("");
}

void PLMSyncPolicy::setSyncPolicy(double d, double e, double f, double g, double h, double m,
                                  double r, double t) {
    LOGD("");
    LOGD("factors d[%.0f], e[%.0f], f[%.0f], g[%.0f], h[%.0f], m[%.0f], r[%.0f], t[%.0f]", d, e, f,
         g, h, m, r, t);
}
