// MediaDBObserver: turns the media content service's "database updated" notifications into
// media syncs. Only music changes (media type 3) reach the sync manager's media_changed();
// photos, videos and other media types are ignored.
//
// Thread: the main loop (registration and the callback). Ownership: owned by MainObserver; it
// must be unregistered before it goes (MainObserver's unregister_all_observers does that).
// Errors: registration failures are logged ("media_content_connect failed") and returned as the
// media content service's error code.
#pragma once

#include <functional>

class MediaDBObserver {
  public:
    // onMusicChanged: what a music change calls; default: the sync manager's media_changed().
    explicit MediaDBObserver(std::function<void()> onMusicChanged = {});

    static int register_media_observer(MediaDBObserver* observer);
    static int unregister_media_observer(MediaDBObserver* observer);

    // The media content service's callback (user data: the observer).
    static void media_db_changed_cb(int error, int pid, int update_item, int update_type,
                                    int media_type, const char* uuid, const char* path,
                                    const char* mime_type, void* user_data);

  private:
    std::function<void()> mOnMusicChanged;
    bool mConnected = false;
};
