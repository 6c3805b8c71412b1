#include "observers/MediaDBObserver.h"

#include <pelio/platform/MediaContent.h>

#include "PelioLog.h"
#include "upload/PLMSyncManager.h"

namespace pp = pelio::platform;

MediaDBObserver::MediaDBObserver(std::function<void()> onMusicChanged)
    : mOnMusicChanged(std::move(onMusicChanged)) {}

int MediaDBObserver::register_media_observer(MediaDBObserver* observer) {
    auto& media = pp::mediaContentService();
    int ret = media.connect();
    if (ret != pp::MEDIA_CONTENT_ERROR_NONE) {
        LOGE("media_content_connect failed");
        return ret;
    }
    observer->mConnected = true;
    ret = media.setDbUpdatedCallback(&MediaDBObserver::media_db_changed_cb, observer);
    if (ret != pp::MEDIA_CONTENT_ERROR_NONE) {
        // The same text for both failures, as the service has always logged it.
        LOGE("media_content_connect failed");
    }
    return ret;
}

int MediaDBObserver::unregister_media_observer(MediaDBObserver* observer) {
    if (!observer->mConnected)
        return pp::MEDIA_CONTENT_ERROR_NOT_CONNECTED;
    auto& media = pp::mediaContentService();
    int ret = media.unsetDbUpdatedCallback();
    if (ret != pp::MEDIA_CONTENT_ERROR_NONE)
        LOGE("media_content_connect failed");
    const int disconnected = media.disconnect();
    if (disconnected != pp::MEDIA_CONTENT_ERROR_NONE) {
        LOGE("media_content_connect failed");
        ret = disconnected;
    }
    observer->mConnected = false;
    return ret;
}

void MediaDBObserver::media_db_changed_cb(int error, int pid, int update_item, int update_type,
                                          int media_type, const char* uuid, const char* path,
                                          const char* mime_type, void* user_data) {
    (void)pid;
    LOGD("media_db_changed_cb");
    LOGD(
        "error[%d] update_item[%d] update_type[%d] media_type[%d] uuid[%s] path[%s] "
        "mime_type[%s]",
        error, update_item, update_type, media_type, uuid ? uuid : "", path ? path : "",
        mime_type ? mime_type : "");
    if (media_type != pp::MEDIA_CONTENT_TYPE_MUSIC)
        return;
    LOGD("Update Sync Mgr for Media change");
    auto* observer = static_cast<MediaDBObserver*>(user_data);
    if (observer != nullptr && observer->mOnMusicChanged) {
        observer->mOnMusicChanged();
        return;
    }
    PLMSyncManager::getInstance()->media_changed();
}
