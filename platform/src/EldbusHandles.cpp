#include "EldbusHandles.h"

namespace pelio::platform::detail {
namespace {
ConnectionPtr& sessionSlot() {
    static ConnectionPtr connection;
    return connection;
}
}  // namespace

Eldbus_Connection* sessionBus() {
    auto& slot = sessionSlot();
    if (!slot)
        slot.reset(eldbus_connection_get(ELDBUS_CONNECTION_TYPE_SESSION));
    return slot.get();
}

void releaseSessionBus() {
    sessionSlot().reset();
}

bool appendExtras(Eldbus_Message_Iter* iter, const Extras& extras) {
    Eldbus_Message_Iter* array = nullptr;
    if (!eldbus_message_iter_arguments_append(iter, "a{ss}", &array) || !array)
        return false;
    bool ok = true;
    for (const auto& [key, value] : extras) {
        Eldbus_Message_Iter* entry = nullptr;
        if (!eldbus_message_iter_arguments_append(array, "{ss}", &entry) || !entry) {
            ok = false;
            break;
        }
        ok = eldbus_message_iter_arguments_append(entry, "ss", key.c_str(), value.c_str());
        eldbus_message_iter_container_close(array, entry);
        if (!ok)
            break;
    }
    eldbus_message_iter_container_close(iter, array);
    return ok;
}

Extras readExtras(Eldbus_Message_Iter* array) {
    Extras extras;
    Eldbus_Message_Iter* entry = nullptr;
    while (array && eldbus_message_iter_get_and_next(array, 'e', &entry)) {
        const char* key = nullptr;
        const char* value = nullptr;
        if (eldbus_message_iter_arguments_get(entry, "ss", &key, &value) && key && value) {
            extras.emplace_back(key, value);
        }
    }
    return extras;
}

}  // namespace pelio::platform::detail
