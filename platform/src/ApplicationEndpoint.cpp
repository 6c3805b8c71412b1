#include "pelio/platform/ApplicationEndpoint.h"

#include "EldbusHandles.h"
#include "pelio/platform/Log.h"

namespace pelio::platform {

using namespace detail;

struct ApplicationEndpoint::Impl {
    std::string appId;
    int state;
    LaunchHandler onLaunch;
    NameHandler onName;
    InterfacePtr iface;
    Eldbus_Pending* namePending = nullptr;
    bool released = false;

    ~Impl() {
        onName = nullptr;
        if (namePending)
            eldbus_pending_cancel(namePending);
    }

    static const Eldbus_Service_Interface_Desc* desc() {
        static const Eldbus_Arg_Info in[] = {{"a{ss}", "extras"}, {nullptr, nullptr}};
        static const Eldbus_Arg_Info out[] = {
            {"b", "replied"}, {"i", "result"}, {"a{ss}", "reply_extras"}, {nullptr, nullptr}};
        static const Eldbus_Method methods[] = {{"Launch", in, out, &Impl::launch, 0},
                                                {nullptr, nullptr, nullptr, nullptr, 0}};
        static const Eldbus_Property properties[] = {{"State", "i", &Impl::getState, nullptr, 0},
                                                     {nullptr, nullptr, nullptr, nullptr, 0}};
        static const Eldbus_Service_Interface_Desc d = {
            kApplicationInterface, methods, nullptr, properties, nullptr, nullptr};
        return &d;
    }

    static Impl* from(const Eldbus_Service_Interface* iface) {
        return static_cast<Impl*>(eldbus_service_object_data_get(iface, "pelio.endpoint"));
    }

    static Eldbus_Message* launch(const Eldbus_Service_Interface* iface,
                                  const Eldbus_Message* msg) {
        Impl* self = from(iface);
        Eldbus_Message_Iter* array = nullptr;
        if (!self || !eldbus_message_arguments_get(msg, "a{ss}", &array)) {
            return eldbus_message_error_new(msg, "org.freedesktop.DBus.Error.InvalidArgs",
                                            "Launch takes a{ss}");
        }
        AppControl request = AppControl::incoming(readExtras(array));
        request.setAppId(self->appId);
        if (self->onLaunch)
            self->onLaunch(request);
        flushLog();  // what the request logged is out before its caller hears back

        const LaunchReply* reply = request.reply();
        Eldbus_Message* answer = eldbus_message_method_return_new(msg);
        if (!answer)
            return nullptr;
        Eldbus_Message_Iter* main = eldbus_message_iter_get(answer);
        const bool replied = reply && reply->replied;
        eldbus_message_iter_basic_append(main, 'b', replied ? EINA_TRUE : EINA_FALSE);
        eldbus_message_iter_basic_append(main, 'i', replied ? reply->result : -1);
        if (!appendExtras(main, replied ? reply->extras : Extras{})) {
            eldbus_message_unref(answer);
            return eldbus_message_error_new(msg, "org.freedesktop.DBus.Error.Failed",
                                            "reply extras could not be sent");
        }
        return answer;
    }

    static Eina_Bool getState(const Eldbus_Service_Interface* iface, const char*,
                              Eldbus_Message_Iter* iter, const Eldbus_Message*, Eldbus_Message**) {
        Impl* self = from(iface);
        eldbus_message_iter_basic_append(iter, 'i', self ? self->state : 0);
        return EINA_TRUE;
    }

    static void nameReply(void* data, const Eldbus_Message* msg, Eldbus_Pending*) {
        auto* self = static_cast<Impl*>(data);
        self->namePending = nullptr;
        unsigned int reply = 0;
        const char* errName = nullptr;
        const char* errText = nullptr;
        bool owned = false;
        if (eldbus_message_error_get(msg, &errName, &errText)) {
            dlog_print(DLOG_ERROR, "PelioPlatform", "bus name %s: %s", self->appId.c_str(),
                       errText ? errText : "error");
        } else if (eldbus_message_arguments_get(msg, "u", &reply)) {
            owned = reply == ELDBUS_NAME_REQUEST_REPLY_PRIMARY_OWNER ||
                    reply == ELDBUS_NAME_REQUEST_REPLY_ALREADY_OWNER;
        }
        if (self->onName)
            self->onName(owned);
    }
};

ApplicationEndpoint::ApplicationEndpoint(std::string appId, int state, LaunchHandler onLaunch)
    : impl_(std::make_unique<Impl>()) {
    impl_->appId = std::move(appId);
    impl_->state = state;
    impl_->onLaunch = std::move(onLaunch);
}

ApplicationEndpoint::~ApplicationEndpoint() = default;

bool ApplicationEndpoint::start(NameHandler onName) {
    Eldbus_Connection* bus = sessionBus();
    if (!bus)
        return false;
    impl_->onName = std::move(onName);
    impl_->iface.reset(eldbus_service_interface_register(
        bus, applicationObjectPath(impl_->appId).c_str(), Impl::desc()));
    if (!impl_->iface)
        return false;
    eldbus_service_object_data_set(impl_->iface.get(), "pelio.endpoint", impl_.get());
    impl_->namePending =
        eldbus_name_request(bus, impl_->appId.c_str(), ELDBUS_NAME_REQUEST_FLAG_DO_NOT_QUEUE,
                            &Impl::nameReply, impl_.get());
    return true;
}

void ApplicationEndpoint::releaseName() {
    Eldbus_Connection* bus = sessionBus();
    if (!bus || impl_->released)
        return;
    impl_->released = true;
    flushLog();  // the service's lines are out before another instance can be started
    eldbus_name_release(bus, impl_->appId.c_str(), nullptr, nullptr);
}

void ApplicationEndpoint::setState(int state) {
    impl_->state = state;
    flushLog();
    if (impl_->iface)
        eldbus_service_property_changed(impl_->iface.get(), "State");
}

int ApplicationEndpoint::state() const {
    return impl_->state;
}

}  // namespace pelio::platform
