#include <pelio/platform/Contacts.h>
#include <pelio/platform/Slot.h>

#include "LinuxContactsService.h"

namespace pelio::platform {
namespace {

Slot<ContactsService>& slot() {
    static Slot<ContactsService> s([] { return std::make_unique<LinuxContactsService>(); });
    return s;
}

}  // namespace

ContactsService& contactsService() {
    return slot().get();
}

void installContactsService(std::unique_ptr<ContactsService> impl) {
    slot().install(std::move(impl));
}

}  // namespace pelio::platform
