#include "utils/WritePLMData.h"

#include <dirent.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include <pelio/CHandles.h>
#include <pelio/platform/Preferences.h>

#include "PLMConstants.h"
#include "PelioLog.h"
#include "utils/PathConfig.h"

namespace pp = pelio::platform;

namespace {

std::mutex gWriterMutex;
std::thread gWriter;                   // guarded by gWriterMutex
std::atomic<bool> gStopWriter{false};  // asks a recorded writer to give up before writing
std::atomic<bool> gBaseline{false};    // the "baseline" preference did not exist at the start

void joinWriterLocked() {
    if (gWriter.joinable()) {
        gStopWriter.store(true);
        gWriter.join();
        gStopWriter.store(false);
    }
}

void handleMessage(int item, const std::string& document) {
    if (gStopWriter.load())
        return;
    const std::string name = WritePLMData::getFilename(item, WritePLMData::getUploadType());
    if (name.empty())
        return;
    pelio::FilePtr file(std::fopen(name.c_str(), "w+"));
    if (!file) {
        LOGE("writeDatatoFile : File open failed[%s]", name.c_str());
        return;
    }
    // Written verbatim: a document's "%" sequences are data, not a format.
    std::fputs(document.c_str(), file.get());
}

}  // namespace

std::string WritePLMData::dumpFolder() {
    return PathConfig::GetDataPath("PLM");
}

std::string WritePLMData::getUploadType() {
    int counter = 0;
    if (pp::preferences().getInt(plm::PREF_BASELINE, counter) != pp::PREFERENCE_ERROR_NONE)
        counter = 0;
    pp::preferences().setInt(plm::PREF_BASELINE, counter + 1);
    if (gBaseline.load()) {
        LOGD("uploadType: Baseline");
        return "BASELINE";
    }
    LOGD("uploadType: Incremental");
    return "INCREMENTAL";
}

std::string WritePLMData::getFileForwriting(const std::string& type,
                                            const std::string& uploadType) {
    int counter = 0;
    pp::preferences().getInt(plm::PREF_BASELINE, counter);
    const std::string name =
        dumpFolder() + "/PLM_" + type + "_" + uploadType + "_" + std::to_string(counter) + ".json";
    LOGD("filename: %s", name.c_str());
    return name;
}

std::string WritePLMData::getFilename(int item, const std::string& uploadType) {
    const char* type = nullptr;
    switch (item) {
        case plm::SYNC_ITEM_APPLICATION:
            type = "APPS";
            break;
        case plm::SYNC_ITEM_MEDIA:
            type = "MEDIA";
            break;
        case plm::SYNC_ITEM_CONTACTS:
            type = "CONTACTS";
            break;
        case plm::SYNC_ITEM_WAKEUP:
            type = "WAKEUP";
            break;
        default:
            LOGD("inside getFilename %d", item);
            return "";
    }
    return getFileForwriting(type, uploadType);
}

void WritePLMData::startFileWriting(int item, const std::string& document) {
    int existing = 0;
    const bool existed =
        pp::preferences().getInt(plm::PREF_BASELINE, existing) == pp::PREFERENCE_ERROR_NONE;
    if (!existed)
        pp::preferences().setInt(plm::PREF_BASELINE, 0);
    gBaseline.store(!existed);

    const std::string folder = dumpFolder();
    struct stat st {};
    if (stat(folder.c_str(), &st) != 0) {
        LOGD("[%s] is not there", folder.c_str());
        if (mkdir(folder.c_str(), 0744) != 0 && errno != EEXIST) {
            LOGE("Failed to create [%s] with error[%s]", folder.c_str(), std::strerror(errno));
        }
    }
    std::lock_guard<std::mutex> guard(gWriterMutex);
    joinWriterLocked();
    try {
        gWriter = std::thread(handleMessage, item, document);  // the thread owns its copy
    } catch (const std::system_error& e) {
        LOGE("Failed to start the dump writer: %s", e.what());
    }
}

void WritePLMData::waitForWriter() {
    std::lock_guard<std::mutex> guard(gWriterMutex);
    if (gWriter.joinable())
        gWriter.join();
}

void WritePLMData::deleteFiles() {
    const std::string folder = dumpFolder();
    pelio::DirPtr dir(opendir(folder.c_str()));
    if (!dir) {
        LOGE("Failed to open %s", folder.c_str());
        return;
    }
    while (dirent* entry = readdir(dir.get())) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        const std::string path = folder + "/" + entry->d_name;
        LOGD("removing %s", path.c_str());
        std::remove(path.c_str());
    }
}
