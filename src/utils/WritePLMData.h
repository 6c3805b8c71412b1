// WritePLMData: writes a copy of an upload document to a JSON file in the "PLM" folder of the
// service's data directory, so that what was sent can be inspected on the device. Nothing in the
// sync flow calls it; it is an inspection facility.
//
// Naming: "PLM_<type word>_<upload type>_<counter>.json", type word by sync item (1 "APPS",
// 2 "MEDIA", 3 "CONTACTS", 12 "WAKEUP"; other items get no file); upload type "BASELINE" for the
// first dump on the device (the integer preference "baseline" did not exist when writing
// started), "INCREMENTAL" afterwards; the counter is the preference "baseline" + 1, stored back.
//
// Threads: startFileWriting() from any thread; the file is written on a short-lived writer
// thread that owns its copy of the document. At most one writer is kept: starting a new one
// stops (and joins) the previous one first. Ownership: process-wide state behind static
// functions; waitForWriter() joins the writer (tests, shutdown).
// Errors: logged; nothing is returned to the caller.
#pragma once

#include <string>

class WritePLMData {
  public:
    static void startFileWriting(int item, const std::string& document);
    // Removes every file of the dump folder.
    static void deleteFiles();
    static void waitForWriter();

    // The naming rules.
    static std::string getUploadType();
    static std::string getFilename(int item, const std::string& uploadType);
    static std::string getFileForwriting(const std::string& type, const std::string& uploadType);
    static std::string dumpFolder();
};
