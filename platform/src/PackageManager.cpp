#include "pelio/platform/PackageManager.h"

#include "LinuxPackageManager.h"
#include "pelio/platform/Slot.h"

namespace pelio::platform {
namespace {

Slot<PackageManager>& slot() {
    static Slot<PackageManager> s([] { return std::make_unique<LinuxPackageManager>(); });
    return s;
}

}  // namespace

PackageManager& packageManager() {
    return slot().get();
}

void installPackageManager(std::unique_ptr<PackageManager> impl) {
    slot().install(std::move(impl));
}

}  // namespace pelio::platform
