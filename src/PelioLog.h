// The service's log macros: every line through dlog_print with the tag "PelioService" and the
// prefix "<file>: <function>(<line>) > ". Safe from any thread.
#pragma once

#include <pelio/platform/Log.h>

#define PELIO_LOG_TAG "PelioService"

#define PELIO_LOG(prio, fmt, ...)                                                 \
    dlog_print(prio, PELIO_LOG_TAG, "%s: %s(%d) > " fmt, __FILE_NAME__, __func__, \
               __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define LOGD(fmt, ...) PELIO_LOG(pelio::platform::DLOG_DEBUG, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOGI(fmt, ...) PELIO_LOG(pelio::platform::DLOG_INFO, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOGW(fmt, ...) PELIO_LOG(pelio::platform::DLOG_WARN, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOGE(fmt, ...) PELIO_LOG(pelio::platform::DLOG_ERROR, fmt __VA_OPT__(, ) __VA_ARGS__)
