// A service on libdbus-1. It answers out of the message's own buffer.

#include <dbus/dbus.h>

#include "poll-loop.h"
#include "server.h"

namespace {

void AppendBytes(DBusMessage* message, const char* bytes, int size)
{
    dbus_message_append_args(message, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, size,
                             DBUS_TYPE_INVALID);
}

DBusHandlerResult Serve(DBusConnection* bus, DBusMessage* call, void* /*user_data*/)
{
    if (dbus_message_is_method_call(call, names::INTERFACE.c_str(), "Send") == FALSE)
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    const char* bytes = nullptr;
    int size = 0;
    dbus_message_get_args(call, nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, &size,
                          DBUS_TYPE_INVALID);
    DBusMessage* reply = dbus_message_new_method_return(call);
    AppendBytes(reply, bytes, size);
    dbus_connection_send(bus, reply, nullptr);
    dbus_message_unref(reply);
    return DBUS_HANDLER_RESULT_HANDLED;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string path = names::Path(server::ChannelOf(argc, argv));
    DBusError error = DBUS_ERROR_INIT;
    DBusConnection* bus = dbus_bus_get(DBUS_BUS_SYSTEM, &error);
    if (bus == nullptr)
        server::Die(argv[0], error.message);
    const DBusObjectPathVTable vtable{nullptr, Serve, nullptr, nullptr, nullptr, nullptr};
    dbus_connection_register_object_path(bus, path.c_str(), &vtable, nullptr);
    int descriptor = -1;
    dbus_connection_get_unix_fd(bus, &descriptor);
    server::Say(std::string("serving ") + dbus_bus_get_unique_name(bus));

    std::vector<std::string> partners;
    const auto work = [bus] {
        dbus_connection_read_write(bus, 0);
        while (dbus_connection_dispatch(bus) == DBUS_DISPATCH_DATA_REMAINS) {
        }
        const bool unsent = dbus_connection_has_messages_to_send(bus) != FALSE;
        return unsent ? POLLIN | POLLOUT : POLLIN;
    };
    const auto emit = [&](const std::string& partner, const server::Bytes& data) {
        DBusMessage* signal =
            dbus_message_new_signal(path.c_str(), names::INTERFACE.c_str(), "SendSignal");
        dbus_message_set_destination(signal, partner.c_str());
        AppendBytes(signal, data.data(), static_cast<int>(data.size()));
        dbus_connection_send(bus, signal, nullptr);
        dbus_message_unref(signal);
    };
    RunPollLoop(descriptor, work, [&] { return server::Obey(partners, emit); });
    dbus_connection_unref(bus);
}
